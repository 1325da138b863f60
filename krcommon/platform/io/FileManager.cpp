#include <krcommon/platform/io/FileManager.h>

#include <krcommon/platform/io/PosixIO.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <system_error>

namespace krcommon::platform {

namespace {

// The library's files hold the app's private data: readable by their owner only.
constexpr mode_t fileMode = 0600;
constexpr mode_t folderMode = 0700;
constexpr std::string_view temporarySuffix = ".tmp";
constexpr std::size_t temporaryHexDigits = 12;

// Records an error for `path` when the caller asked for one; always answers false.
bool fail(std::shared_ptr<Error>* error, int code, const std::string& path, const char* action) {
    if (error) {
        std::string text = "Could not ";
        text.append(action).append(" \xE2\x80\x9C").append(path).append("\xE2\x80\x9D: ");
        text.append(std::error_code(code, std::generic_category()).message());
        *error = Error::make(FileManager::errorDomain, code,
                             Dictionary{{FileManager::filePathKey, path}, {LocalizedDescriptionKey, std::move(text)}});
    }
    return false;
}

int openRetrying(const char* path, int flags, mode_t mode = 0) {
    int fd;
    do {
        fd = ::open(path, flags | O_CLOEXEC, mode);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

// close() that answers 0 or its errno. EINTR still means the descriptor is gone on Linux.
int closeChecked(int fd) { return ::close(fd) == 0 || errno == EINTR ? 0 : errno; }

bool isDirectory(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool existsWithoutFollowing(const std::string& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0;
}

// A name no other writer in this or another process is likely to pick; the
// exclusive create settles the rest.
std::string temporarySibling(const std::string& folder, std::string_view base) {
    static std::atomic<std::uint64_t> counter{
        static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count())};
    std::uint64_t x = counter.fetch_add(0x9E3779B97F4A7C15ULL) ^ (static_cast<std::uint64_t>(::getpid()) << 32);
    x ^= x >> 31;
    x *= 0xBF58476D1CE4E5B9ULL;
    x ^= x >> 29;
    char suffix[24];
    static_assert(temporaryHexDigits == 12 && temporarySuffix == ".tmp", "keep the name and its pattern together");
    std::snprintf(suffix, sizeof suffix, ".%012llx.tmp", static_cast<unsigned long long>(x & 0xFFFFFFFFFFFFULL));
    std::string name = folder;
    if (name.back() != '/') name.push_back('/');
    name.push_back('.');
    name.append(base.substr(0, 200));  // stay below NAME_MAX whatever the base name's length
    name.append(suffix);
    return name;
}

// Whether `name` has the shape temporarySibling() gives: "." + base + "." +
// twelve lowercase hex digits + ".tmp", with a base of at least one character.
bool isTemporaryName(std::string_view name) {
    const std::size_t tail = 1 + temporaryHexDigits + temporarySuffix.size();
    if (name.size() < 2 + tail || name.front() != '.' || !name.ends_with(temporarySuffix)) return false;
    const std::string_view hex = name.substr(name.size() - tail + 1, temporaryHexDigits);
    return name[name.size() - tail] == '.' &&
           hex.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

// Removes the temporary files that writers killed before their rename left in
// `folder`. A live writer holds an exclusive flock on its temporary file from
// creation to rename, and the kernel drops the lock when its process dies: a
// temporary file this process can lock has no writer left. Best effort: a
// folder that cannot be listed, or a file that cannot be opened, is left alone.
void removeStaleTemporaries(const std::string& folder) {
    DIR* dir = ::opendir(folder.c_str());
    if (!dir) return;
    const int dirFd = ::dirfd(dir);
    while (const dirent* entry = ::readdir(dir)) {
        if (!isTemporaryName(entry->d_name)) continue;
        const int fd = ::openat(dirFd, entry->d_name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
        if (fd < 0) continue;
        struct stat opened {};
        struct stat named {};
        if (::fstat(fd, &opened) == 0 && S_ISREG(opened.st_mode) && ::flock(fd, LOCK_EX | LOCK_NB) == 0 &&
            ::fstatat(dirFd, entry->d_name, &named, AT_SYMLINK_NOFOLLOW) == 0 && named.st_ino == opened.st_ino &&
            named.st_dev == opened.st_dev)
            ::unlinkat(dirFd, entry->d_name, 0);
        ::close(fd);
    }
    ::closedir(dir);
}

// Creates and locks a fresh temporary file beside `base` in `folder`; -1 with
// errno set when none could be made.
int createLockedTemporary(const std::string& folder, std::string_view base, std::string& temporary) {
    for (int attempt = 0; attempt < 100; ++attempt) {
        temporary = temporarySibling(folder, base);
        const int fd = openRetrying(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL, fileMode);
        if (fd < 0) {
            if (errno == EEXIST) continue;
            return -1;
        }
        // Between the create and the lock another writer's clean-up may have
        // taken the still unlocked file for a leftover and removed it; once
        // locked and still linked, it is safe. On a file system without flock
        // the file stays unlocked, and no clean-up can lock it either.
        while (::flock(fd, LOCK_EX) != 0 && errno == EINTR) {
        }
        struct stat st {};
        if (::fstat(fd, &st) != 0 || st.st_nlink > 0) return fd;
        ::close(fd);
    }
    errno = EEXIST;
    return -1;
}

bool writeInPlace(const std::string& path, std::string_view bytes, std::shared_ptr<Error>* error) {
    const int fd = openRetrying(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, fileMode);
    if (fd < 0) return fail(error, errno, path, "write");
    int code = posix::writeFully(fd, bytes);
    const int closed = closeChecked(fd);
    if (code == 0) code = closed;
    return code == 0 || fail(error, code, path, "write");
}

}  // namespace

bool FileManager::fileExistsAtPath(const std::string& path) { return fileExistsAtPath(path, nullptr); }

bool FileManager::fileExistsAtPath(const std::string& path, bool* isDirectory) {
    struct stat st {};
    if (path.empty() || ::stat(path.c_str(), &st) != 0) return false;
    if (isDirectory) *isDirectory = S_ISDIR(st.st_mode);
    return true;
}

bool FileManager::createDirectoryAtPath(const std::string& path, bool withIntermediateDirectories,
                                        std::shared_ptr<Error>* error) {
    const char* action = "create the directory";
    if (path.empty()) return fail(error, ENOENT, path, action);
    if (!withIntermediateDirectories) {
        return ::mkdir(path.c_str(), folderMode) == 0 || fail(error, errno, path, action);
    }
    // Each missing ancestor in turn; one that exists as a file makes the next step fail with ENOTDIR.
    for (std::size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
        if (path[slash - 1] == '/') continue;
        const std::string ancestor = path.substr(0, slash);
        if (::mkdir(ancestor.c_str(), folderMode) != 0 && errno != EEXIST) return fail(error, errno, ancestor, action);
    }
    if (::mkdir(path.c_str(), folderMode) == 0) return true;
    const int code = errno;
    if (code == EEXIST && isDirectory(path)) return true;
    return fail(error, code, path, action);
}

bool FileManager::moveItemAtPath(const std::string& from, const std::string& to, std::shared_ptr<Error>* error) {
    const char* action = "move";
    if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return true;
    int code = errno;
    if (code == EINVAL || code == ENOSYS) {
        // A file system without the no-replace flag: check, then rename.
        if (existsWithoutFollowing(to)) return fail(error, EEXIST, to, action);
        if (::rename(from.c_str(), to.c_str()) == 0) return true;
        code = errno;
    }
    if (code != EXDEV) return fail(error, code, code == EEXIST ? to : from, action);

    // Another file system: copy everything, then remove the source.
    if (existsWithoutFollowing(to)) return fail(error, EEXIST, to, action);
    namespace fs = std::filesystem;
    std::error_code ec;
    fs::copy(from, to, fs::copy_options::recursive | fs::copy_options::copy_symlinks, ec);
    if (ec) {
        std::error_code ignored;
        fs::remove_all(to, ignored);
        return fail(error, ec.value(), from, action);
    }
    return removeItemAtPath(from, error);
}

bool FileManager::removeItemAtPath(const std::string& path, std::shared_ptr<Error>* error) {
    if (path.empty()) return fail(error, ENOENT, path, "remove");
    if (!existsWithoutFollowing(path)) return fail(error, errno, path, "remove");
    std::error_code ec;
    std::filesystem::remove_all(path, ec);
    return !ec || fail(error, ec.value(), path, "remove");
}

std::optional<Data> FileManager::contentsAtPath(const std::string& path, std::shared_ptr<Error>* error) {
    const int fd = openRetrying(path.c_str(), O_RDONLY);
    if (fd < 0) {
        fail(error, errno, path, "read");
        return std::nullopt;
    }
    struct stat st {};
    Data data;
    int code = ::fstat(fd, &st) == 0 ? 0 : errno;
    if (code == 0 && S_ISDIR(st.st_mode)) code = EISDIR;
    // The size is a hint only: files under /proc report 0, and files may grow while read.
    std::size_t used = 0;
    if (code == 0) data.resize(st.st_size > 0 ? static_cast<std::size_t>(st.st_size) + 1 : 4096);
    while (code == 0) {
        if (used == data.size()) data.resize(data.size() * 2);
        const ssize_t n = ::read(fd, data.data() + used, data.size() - used);
        if (n < 0) {
            if (errno != EINTR) code = errno;
            continue;
        }
        if (n == 0) break;
        used += static_cast<std::size_t>(n);
    }
    ::close(fd);
    if (code != 0) {
        fail(error, code, path, "read");
        return std::nullopt;
    }
    data.resize(used);
    return data;
}

bool FileManager::writeAtomically(const std::string& path, std::string_view bytes, std::shared_ptr<Error>* error) {
    const char* action = "write";
    const auto slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
    const std::string_view base = slash == std::string::npos ? std::string_view(path)
                                                             : std::string_view(path).substr(slash + 1);
    if (base.empty()) return fail(error, path.empty() ? ENOENT : EISDIR, path, action);

    removeStaleTemporaries(folder);
    std::string temporary;
    const int fd = createLockedTemporary(folder, base, temporary);
    if (fd < 0) return fail(error, errno, path, action);

    // The descriptor, and with it the lock, is kept until the rename is done.
    int code = posix::writeFully(fd, bytes);
    if (code == 0 && ::fsync(fd) != 0) code = errno;
    if (code == 0 && ::rename(temporary.c_str(), path.c_str()) != 0) code = errno;
    if (code != 0) ::unlink(temporary.c_str());
    // After a successful fsync a failing close loses nothing.
    (void)closeChecked(fd);
    if (code != 0) return fail(error, code, path, action);

    // The rename is durable only once the folder's entry is on disk too. File
    // systems that cannot sync a directory say EINVAL; nothing more can be done there.
    const int dir = openRetrying(folder.c_str(), O_RDONLY | O_DIRECTORY);
    if (dir < 0) return fail(error, errno, folder, action);
    code = ::fsync(dir) == 0 || errno == EINVAL ? 0 : errno;
    ::close(dir);
    return code == 0 || fail(error, code, folder, action);
}

bool FileManager::writeToFile(const std::string& path, std::string_view bytes, bool atomically,
                              std::shared_ptr<Error>* error) {
    return atomically ? writeAtomically(path, bytes, error) : writeInPlace(path, bytes, error);
}

}  // namespace krcommon::platform

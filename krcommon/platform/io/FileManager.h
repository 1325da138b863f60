#pragma once

// File system operations with the mobile platform's file manager semantics.
// Every operation reports failure by its result (false or nullopt) and, when
// asked, by an Error in the POSIX domain ("NSPOSIXErrorDomain", code = errno,
// user info "NSFilePath" and a "NSLocalizedDescription"). Nothing throws.

#include <krcommon/platform/core/Error.h>
#include <krcommon/platform/core/Value.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace krcommon::platform {

class KRCOMMON_EXPORT FileManager {
public:
    /// Domain of the errors made here; codes are errno values.
    static constexpr const char* errorDomain = "NSPOSIXErrorDomain";
    /// User-info key holding the path an error is about.
    static constexpr const char* filePathKey = "NSFilePath";

    /// Whether something exists at `path`, following symbolic links (a
    /// dangling link does not count).
    static bool fileExistsAtPath(const std::string& path);
    /// As above, also telling whether it is a directory (when `isDirectory` is not null).
    static bool fileExistsAtPath(const std::string& path, bool* isDirectory);

    /// Creates the directory `path` with mode 0700 (less the umask): the
    /// library's folders hold the app's private data. With intermediate
    /// directories, missing parents are created too (also 0700) and an existing
    /// directory counts as success, whatever its mode; without, the parent must
    /// exist and `path` must not.
    static bool createDirectoryAtPath(const std::string& path, bool withIntermediateDirectories,
                                      std::shared_ptr<Error>* error = nullptr);

    /// Moves a file or a directory. Fails with EEXIST when something already
    /// exists at `to`. Works across file systems by copying, then removing the source.
    static bool moveItemAtPath(const std::string& from, const std::string& to,
                               std::shared_ptr<Error>* error = nullptr);

    /// Removes a file, a symbolic link (not its target) or a directory with all
    /// it contains. Fails with ENOENT when nothing is there.
    static bool removeItemAtPath(const std::string& path, std::shared_ptr<Error>* error = nullptr);

    /// The whole contents of the file at `path`, or nullopt when it cannot be read.
    static std::optional<Data> contentsAtPath(const std::string& path, std::shared_ptr<Error>* error = nullptr);

    /// Replaces the file at `path` with `bytes` so that a crash at any moment
    /// leaves either the old file or the new one: the bytes go to a temporary
    /// file in the same folder (".<name>.<12 hex digits>.tmp"), which is flushed
    /// to disk and renamed over `path`, and then the folder is flushed.
    ///
    /// The file is the library's own: it gets mode 0600 (less the umask) and
    /// the writing user as owner, also when it replaces an existing file of
    /// another mode. A write that a crash interrupted leaves its temporary file
    /// behind; the next atomic write into the same folder removes every such
    /// leftover. A writer holds an advisory lock (flock) on its temporary file
    /// until the rename, and only unlocked ones are removed, so a concurrent
    /// writer in this or another process never loses its file.
    static bool writeAtomically(const std::string& path, std::string_view bytes,
                                std::shared_ptr<Error>* error = nullptr);
    static bool writeAtomically(const std::string& path, const Data& bytes, std::shared_ptr<Error>* error = nullptr) {
        return writeAtomically(path, asText(bytes), error);
    }

    /// Writes `bytes` to `path`, atomically as writeAtomically() does, or else by
    /// truncating and rewriting the file in place (an existing file keeps its
    /// mode and owner; a new one gets mode 0600 less the umask).
    static bool writeToFile(const std::string& path, std::string_view bytes, bool atomically,
                            std::shared_ptr<Error>* error = nullptr);
    static bool writeToFile(const std::string& path, const Data& bytes, bool atomically,
                            std::shared_ptr<Error>* error = nullptr) {
        return writeToFile(path, asText(bytes), atomically, error);
    }

private:
    static std::string_view asText(const Data& bytes) noexcept {
        return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
    }
};

}  // namespace krcommon::platform

#include <krcommon/platform/io/SearchPaths.h>

#include <krcommon/platform/app/SystemLog.h>

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <mutex>
#include <vector>

namespace krcommon::platform {

namespace {

struct Settings {
    std::mutex mutex;
    std::string home;        // host override; empty when none
    std::string identifier;  // empty until set or first needed
};

Settings& settings() {
    static Settings instance;
    return instance;
}

std::string withoutTrailingSlashes(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

std::string joined(std::string folder, const char* name) {
    if (folder.empty() || folder.back() != '/') folder.push_back('/');
    return folder.append(name);
}

std::string environment(const char* name) {
    const char* value = std::getenv(name);
    return value ? value : "";
}

std::string executableName() {
    char buffer[4096];
    const ssize_t n = ::readlink("/proc/self/exe", buffer, sizeof buffer - 1);
    if (n > 0) {
        std::string path(buffer, static_cast<std::size_t>(n));
        const auto slash = path.rfind('/');
        if (slash != std::string::npos && slash + 1 < path.size()) return path.substr(slash + 1);
    }
    return "krcommon";
}

// $HOME, or the password database's home when HOME is unset or empty.
std::string userHome() {
    std::string home = environment("HOME");
    if (!home.empty()) return home;
    long size = ::sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(size > 0 ? static_cast<std::size_t>(size) : 16384);
    passwd entry{};
    passwd* result = nullptr;
    if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &result) == 0 && result && result->pw_dir)
        return result->pw_dir;
    return "/";
}

}  // namespace

std::string SearchPaths::applicationHome() {
    {
        auto& s = settings();
        std::lock_guard lock(s.mutex);
        if (!s.home.empty()) return s.home;
    }
    if (std::string home = environment("KRCOMMON_APP_HOME"); !home.empty()) return withoutTrailingSlashes(home);
    // The XDG rules ignore a relative XDG_DATA_HOME.
    std::string data = environment("XDG_DATA_HOME");
    if (data.empty() || data.front() != '/') data = joined(withoutTrailingSlashes(userHome()), ".local/share");
    return joined(withoutTrailingSlashes(std::move(data)), bundleIdentifier().c_str());
}

std::string SearchPaths::documentsDirectory() { return joined(applicationHome(), "Documents"); }

std::string SearchPaths::libraryDirectory() { return joined(applicationHome(), "Library"); }

void SearchPaths::setApplicationHome(std::string path) {
    auto& s = settings();
    std::lock_guard lock(s.mutex);
    s.home = withoutTrailingSlashes(std::move(path));
}

std::string SearchPaths::bundleIdentifier() {
    auto& s = settings();
    std::lock_guard lock(s.mutex);
    if (s.identifier.empty()) s.identifier = executableName();
    return s.identifier;
}

void SearchPaths::setBundleIdentifier(std::string identifier) {
    // The identifier names one folder of the data home; one that would name
    // another place ("..", a path) is refused.
    constexpr std::string_view separators("/\0", 2);
    if (identifier == "." || identifier == ".." || identifier.find_first_of(separators) != std::string::npos) {
        SystemLog::log("bundle identifier \"%@\" cannot name a folder of the data home, the default is used",
                       identifier);
        identifier.clear();
    }
    auto& s = settings();
    std::lock_guard lock(s.mutex);
    s.identifier = std::move(identifier);
}

}  // namespace krcommon::platform

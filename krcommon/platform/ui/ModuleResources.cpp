#include <krcommon/platform/ui/ModuleResources.h>

#include <krcommon/platform/app/SystemLog.h>
#include <krcommon/platform/core/Format.h>

#include <dlfcn.h>

#include <cstdlib>
#include <mutex>
#include <set>
#include <string>
#include <system_error>
#include <vector>

namespace krcommon::platform {

namespace {

// The file this code was loaded from: the shared library, or the program that
// carries the static one.
std::filesystem::path loadedFrom() {
    Dl_info info{};
    if (::dladdr(reinterpret_cast<void*>(&loadedFrom), &info) == 0 || !info.dli_fname) return {};
    std::error_code ignored;
    auto path = std::filesystem::canonical(info.dli_fname, ignored);
    return ignored ? std::filesystem::path(info.dli_fname) : path;
}

const char* overrideFolder() {
    const char* folder = std::getenv("KRCOMMON_RESOURCES");
    return folder && *folder ? folder : nullptr;
}

}  // namespace

std::filesystem::path ModuleResources::directory() {
    if (const char* folder = overrideFolder()) return folder;
    std::vector<std::filesystem::path> candidates;
    const auto folder = loadedFrom().parent_path();
    if (!folder.empty()) {
        candidates.push_back(folder.parent_path() / "share" / "krcommon");                // <prefix>/lib
        candidates.push_back(folder.parent_path().parent_path() / "share" / "krcommon");  // <prefix>/lib/<triplet>
    }
    for (const auto& candidate : candidates) {
        std::error_code ignored;
        if (std::filesystem::is_directory(candidate, ignored)) return candidate;
    }
    return candidates.empty() ? std::filesystem::path("/usr/local/share/krcommon") : candidates.front();
}

std::shared_ptr<Image> ModuleResources::imageNamed(std::string_view name) {
    const bool overridden = overrideFolder() != nullptr;
    const auto folder = directory();
    auto image = Image::imageNamed(name, folder);
    if (!image && !overridden) {
        image = Image::imageNamed(name, [](const std::string& fileName) -> std::optional<Data> {
            const auto bytes = builtIn(fileName);
            if (bytes.empty()) return std::nullopt;
            return Data(bytes.begin(), bytes.end());
        });
    }
    if (!image) {
        // The page asks again at every layout pass: one line for each picture and
        // place, not one per pass.
        static std::mutex mutex;
        static std::set<std::string> told;
        const std::string line = format(overridden ? "krcommon: no picture \"%@\" in %@ ($KRCOMMON_RESOURCES)"
                                                   : "krcommon: no picture \"%@\" in %@ nor in the library",
                                        std::string(name), folder.string());
        std::lock_guard lock(mutex);
        if (told.insert(line).second) SystemLog::log("%@", line);
    }
    return image;
}

}  // namespace krcommon::platform

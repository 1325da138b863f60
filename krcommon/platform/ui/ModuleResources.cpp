#include <krcommon/platform/ui/ModuleResources.h>

#include <dlfcn.h>

#include <cstdlib>
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

}  // namespace

std::filesystem::path ModuleResources::directory() {
    if (const char* override = std::getenv("KRCOMMON_RESOURCES"); override && *override) return override;
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

}  // namespace krcommon::platform

#pragma once

// Where the library's own resources (pictures and other files it ships) are:
// the folder named by $KRCOMMON_RESOURCES when set, else share/krcommon beside
// the installed library (<prefix>/lib/libkrcommon.so finds <prefix>/share/krcommon,
// also from a multiarch lib/<triplet>/ folder). A program that links the static
// library counts as the library.

#include <krcommon/platform/core/Export.h>

#include <filesystem>

namespace krcommon::platform {

class KRCOMMON_EXPORT ModuleResources {
public:
    /// The resource folder, looked up on every call (the environment may change). When
    /// no candidate exists, the first one is answered all the same.
    static std::filesystem::path directory();

    ModuleResources() = delete;
};

}  // namespace krcommon::platform

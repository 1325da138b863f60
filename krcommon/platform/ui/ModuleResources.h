#pragma once

// The library's own resources (the pictures it ships). Every one of them is
// compiled into the library, so that any build finds them: shared or static,
// installed or run from its build tree. Files on disk may replace them: the
// folder named by $KRCOMMON_RESOURCES when set, else share/krcommon beside the
// installed library (<prefix>/lib/libkrcommon.so finds <prefix>/share/krcommon,
// also from a multiarch lib/<triplet>/ folder). A program that links the static
// library counts as the library.

#include <krcommon/platform/core/Export.h>
#include <krcommon/platform/ui/Image.h>

#include <filesystem>
#include <memory>
#include <span>
#include <string_view>

namespace krcommon::platform {

class KRCOMMON_EXPORT ModuleResources {
public:
    /// The resource folder on disk, looked up on every call (the environment may change):
    /// $KRCOMMON_RESOURCES when set and not empty, else the first share/krcommon beside the
    /// library that exists. When none exists, the first candidate is answered all the same.
    static std::filesystem::path directory();

    /// The bytes of the resource file `fileName` ("mm404Image@2x.png") as compiled into the
    /// library; empty when the library carries no file of that name.
    static std::span<const unsigned char> builtIn(std::string_view fileName) noexcept;

    /// The picture `name` at the screen's scale, as Image::imageNamed() picks it. With
    /// $KRCOMMON_RESOURCES set, from that folder only (the host chose where the resources
    /// are); otherwise from the folder beside the installed library when it holds the
    /// picture, else the copy compiled into the library. nullptr, with one system-log line
    /// naming the picture, when none is found.
    static std::shared_ptr<Image> imageNamed(std::string_view name);

    ModuleResources() = delete;
};

}  // namespace krcommon::platform

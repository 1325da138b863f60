#pragma once

// Colour parsing, solid-colour images and random identifiers for the host app
// and the sibling modules. Stateless.

#include <krcommon/platform/core/Export.h>
#include <krcommon/platform/ui/Color.h>
#include <krcommon/platform/ui/Geometry.h>
#include <krcommon/platform/ui/Image.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace krcommon {

class KRCOMMON_EXPORT KRSDKUtility {
public:
    /// The RGB colour written in `text` as RRGGBB or RRGGBBAA (alpha last), each with an
    /// optional "0X" and then an optional "#" in front, in any letter case, with spaces
    /// anywhere and white space around. Any other text, absent text and bytes that are not
    /// UTF-8 give the clear colour: red, green, blue and alpha 0. A pair with no leading
    /// hexadecimal digit reads as 0; a pair with one reads that digit alone ("F" of "FZ"
    /// is 15). Callable from any thread.
    static platform::Color colorWith(std::optional<std::string_view> text);

    /// An image of `size` points at the screen's scale, not opaque, filled with `color`.
    /// Without a colour the context's default fill, opaque black, is used, as a drawing
    /// with no colour set does. nullptr (with a system-log line) for a size without area.
    static std::shared_ptr<platform::Image> imageWithColor(const std::optional<platform::Color>& color,
                                                           platform::Size size);

    /// A new random (version 4) UUID in canonical form: 36 lower-case characters,
    /// hyphens at 8, 13, 18 and 23. Callable from any thread.
    static std::string randomUUIDString();

    KRSDKUtility() = delete;
};

}  // namespace krcommon

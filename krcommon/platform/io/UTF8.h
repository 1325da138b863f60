#pragma once

// UTF-8 checks shared by the readers and writers of text formats.

#include <krcommon/platform/core/Export.h>

#include <cstddef>
#include <string_view>

namespace krcommon::platform {

class KRCOMMON_EXPORT UTF8 {
public:
    /// Whether `text` is well-formed UTF-8: no stray continuation bytes, no
    /// overlong forms, no surrogates, nothing above U+10FFFF. Embedded NULs are
    /// valid characters.
    static bool isValid(std::string_view text) noexcept;

    /// The length of the well-formed sequence starting at `text[0]` (1 to 4), or
    /// 0 when it is malformed or cut short. `text` must not be empty.
    static std::size_t sequenceLength(std::string_view text) noexcept;
};

}  // namespace krcommon::platform

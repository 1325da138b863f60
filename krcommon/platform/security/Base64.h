#pragma once

// Strict Base64 decoding (RFC 4648, standard alphabet), as the platform's
// data-from-Base64 initialiser without options performs it.

#include <krcommon/platform/core/Export.h>
#include <krcommon/platform/core/Value.h>

#include <optional>
#include <string_view>

namespace krcommon::platform {

class KRCOMMON_EXPORT Base64 {
public:
    /// Decodes `text`: characters of the standard alphabet only, length a
    /// multiple of 4, one or two "=" allowed only at the very end. Whitespace,
    /// line breaks, the URL-safe alphabet or missing padding give nothing.
    /// Empty text gives empty data.
    static std::optional<Data> decode(std::string_view text);

    Base64() = delete;
};

}  // namespace krcommon::platform

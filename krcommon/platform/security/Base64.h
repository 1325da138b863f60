#pragma once

// Base64 (RFC 4648, standard alphabet): padded encoding, and strict decoding
// as the platform's data-from-Base64 initialiser without options performs it.

#include <krcommon/platform/core/Export.h>
#include <krcommon/platform/core/Value.h>

#include <cstddef>
#include <cstdint>
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

    /// The number of characters encoding `length` bytes takes, padding included.
    static constexpr std::size_t encodedLength(std::size_t length) noexcept { return (length + 2) / 3 * 4; }
    /// Writes the padded encoding of `length` bytes at `in` to `out`, which
    /// must hold encodedLength(length) characters. No terminator, no line breaks.
    static void encode(const std::uint8_t* in, std::size_t length, char* out) noexcept;

    Base64() = delete;
};

}  // namespace krcommon::platform

#pragma once

// Percent-encoding with a chosen set of bytes: the one encoder behind URL
// building and the module's query and form encoding.

#include <krcommon/platform/core/Export.h>

#include <string>
#include <string_view>

namespace krcommon::platform {

/// The bytes to write as "%XX". Bytes of 0x80 and above are always members.
struct PercentEncodeSet {
    bool member[256];

    /// Non-ASCII bytes and the characters of `members`.
    static constexpr PercentEncodeSet of(std::string_view members) {
        PercentEncodeSet set{};
        for (int b = 0x80; b < 256; ++b) set.member[b] = true;
        for (char c : members) set.member[static_cast<unsigned char>(c)] = true;
        return set;
    }
};

/// Appends `text` to `out`, every member of `set` written as "%XX" in upper-case hex.
KRCOMMON_EXPORT void appendPercentEncoded(std::string& out, std::string_view text, const PercentEncodeSet& set);

}  // namespace krcommon::platform

#include <krcommon/platform/io/UTF8.h>

#include <cstdint>
#include <cstring>

namespace krcommon::platform {

std::size_t UTF8::sequenceLength(std::string_view text) noexcept {
    const auto* p = reinterpret_cast<const unsigned char*>(text.data());
    const unsigned char c = p[0];
    if (c < 0x80) return 1;
    const std::size_t length = c >= 0xF0 ? 4 : c >= 0xE0 ? 3 : c >= 0xC2 ? 2 : 0;
    if (length == 0 || c > 0xF4 || text.size() < length) return 0;
    for (std::size_t i = 1; i < length; ++i)
        if ((p[i] & 0xC0) != 0x80) return 0;
    // The second byte's range rules out overlong forms, surrogates and code points above U+10FFFF.
    if ((c == 0xE0 && p[1] < 0xA0) || (c == 0xED && p[1] >= 0xA0) || (c == 0xF0 && p[1] < 0x90) ||
        (c == 0xF4 && p[1] >= 0x90))
        return 0;
    return length;
}

bool UTF8::isValid(std::string_view text) noexcept {
    std::size_t i = 0;
    while (i < text.size()) {
        // Runs of ASCII go eight bytes at a time.
        while (i + 8 <= text.size()) {
            std::uint64_t word;
            std::memcpy(&word, text.data() + i, 8);
            if (word & 0x8080808080808080ULL) break;
            i += 8;
        }
        if (i >= text.size()) break;
        if (static_cast<unsigned char>(text[i]) < 0x80) {
            ++i;
            continue;
        }
        const std::size_t n = sequenceLength(text.substr(i));
        if (n == 0) return false;
        i += n;
    }
    return true;
}

}  // namespace krcommon::platform

#include <krcommon/util/KRSDKUtility.h>

#include <krcommon/platform/io/UTF8.h>
#include <krcommon/platform/ui/ImageContext.h>

#include <array>
#include <cstdint>
#include <random>
#include <string>

namespace krcommon {

namespace {

// White space and line breaks, as trimmed at the ends of the text: the space
// separators, tab and the line and paragraph breaks.
bool isTrimmed(char32_t c) {
    return c == 0x09 || (c >= 0x0A && c <= 0x0D) || c == 0x20 || c == 0x85 || c == 0xA0 || c == 0x1680 ||
           (c >= 0x2000 && c <= 0x200A) || c == 0x2028 || c == 0x2029 || c == 0x202F || c == 0x205F ||
           c == 0x3000;
}

// Decodes well-formed UTF-8 (checked beforehand).
std::u32string decode(std::string_view text) {
    std::u32string out;
    out.reserve(text.size());
    while (!text.empty()) {
        const std::size_t n = platform::UTF8::sequenceLength(text);
        const auto lead = static_cast<unsigned char>(text[0]);
        char32_t c = n == 1 ? lead : n == 2 ? lead & 0x1F : n == 3 ? lead & 0x0F : lead & 0x07;
        for (std::size_t i = 1; i < n; ++i) c = (c << 6) | (static_cast<unsigned char>(text[i]) & 0x3F);
        out.push_back(c);
        text.remove_prefix(n);
    }
    return out;
}

int hexDigit(char16_t c) {
    if (c >= u'0' && c <= u'9') return c - u'0';
    if (c >= u'A' && c <= u'F') return c - u'A' + 10;
    return -1;  // the text is upper-cased before it gets here
}

// Reads the leading hexadecimal digits of a pair, as a scanner would; 0 without any.
unsigned scanHexPair(std::u16string_view pair) {
    unsigned value = 0;
    for (char16_t c : pair) {
        const int digit = hexDigit(c);
        if (digit < 0) break;
        value = value * 16 + static_cast<unsigned>(digit);
    }
    return value;
}

double component(unsigned value) { return static_cast<double>(static_cast<float>(value) / 255.0f); }

}  // namespace

platform::Color KRSDKUtility::colorWith(std::optional<std::string_view> text) {
    const platform::Color clear = platform::Color::clearColor();
    // Bytes that are not UTF-8 make no text at all.
    if (!text || !platform::UTF8::isValid(*text)) return clear;

    // 1. Drop every space, trim white space and line breaks at the ends, upper-case.
    //    Lengths count UTF-16 units, as the platform's strings do. Only ASCII letters
    //    are upper-cased: no other letter can be a hexadecimal digit.
    std::u32string chars = decode(*text);
    std::erase(chars, U' ');
    std::size_t begin = 0;
    std::size_t end = chars.size();
    while (begin < end && isTrimmed(chars[begin])) ++begin;
    while (end > begin && isTrimmed(chars[end - 1])) --end;
    std::u16string units;
    units.reserve(end - begin);
    for (std::size_t i = begin; i < end; ++i) {
        char32_t c = chars[i];
        if (c >= U'a' && c <= U'z') c -= 0x20;
        if (c >= 0x10000) {
            units.push_back(static_cast<char16_t>(0xD800 + ((c - 0x10000) >> 10)));
            units.push_back(static_cast<char16_t>(0xDC00 + ((c - 0x10000) & 0x3FF)));
        } else {
            units.push_back(static_cast<char16_t>(c));
        }
    }
    std::u16string_view v = units;
    // 2. Too short to hold a colour.
    if (v.size() < 6) return clear;
    // 3. The prefixes: "0X", then "#".
    if (v.starts_with(u"0X")) v.remove_prefix(2);
    if (v.starts_with(u"#")) v.remove_prefix(1);
    // 4. Six or eight digits only.
    if (v.size() != 6 && v.size() != 8) return clear;
    // 5-7. RRGGBB[AA].
    const unsigned red = scanHexPair(v.substr(0, 2));
    const unsigned green = scanHexPair(v.substr(2, 2));
    const unsigned blue = scanHexPair(v.substr(4, 2));
    const unsigned alpha = v.size() == 8 ? scanHexPair(v.substr(6, 2)) : 255;
    return platform::Color::colorWithRed(component(red), component(green), component(blue), component(alpha));
}

std::shared_ptr<platform::Image> KRSDKUtility::imageWithColor(const std::optional<platform::Color>& color,
                                                              platform::Size size) {
    platform::beginImageContextWithOptions(size, false, 0.0);
    std::shared_ptr<platform::Image> image;
    if (auto* context = platform::getCurrentContext()) {
        if (color) color->set();
        context->fillRect({0, 0, size.width, size.height});
        image = platform::getImageFromCurrentImageContext();
    }
    platform::endImageContext();
    return image;
}

std::string KRSDKUtility::randomUUIDString() {
    thread_local std::random_device device;
    std::array<std::uint8_t, 16> bytes{};
    for (std::size_t i = 0; i < bytes.size(); i += 4) {
        const std::uint32_t word = device();
        for (std::size_t k = 0; k < 4; ++k) bytes[i + k] = static_cast<std::uint8_t>(word >> (8 * k));
    }
    bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40);  // version 4
    bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);  // RFC 4122 variant
    static constexpr char kHex[] = "0123456789abcdef";
    std::string text;
    text.reserve(36);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) text.push_back('-');
        text.push_back(kHex[bytes[i] >> 4]);
        text.push_back(kHex[bytes[i] & 0x0F]);
    }
    return text;
}

}  // namespace krcommon

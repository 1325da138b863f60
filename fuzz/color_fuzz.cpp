// Colour text into a colour: any bytes give an RGB colour whose components
// are whole steps of 1/255, and the text's letter case and the spaces around
// and inside it never change the answer.

#include <krcommon/util/KRSDKUtility.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

using krcommon::KRSDKUtility;
using krcommon::platform::Color;

namespace {

void check(const Color& color) {
    double c[4];
    if (!color.getRed(c[0], c[1], c[2], c[3])) std::abort();
    for (double v : c) {
        if (!(v >= 0.0 && v <= 1.0)) std::abort();
        const double steps = std::round(v * 255.0);
        if (static_cast<double>(static_cast<float>(steps) / 255.0f) != v) std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const Color color = KRSDKUtility::colorWith(text);
    check(color);

    std::string lower(text);
    for (char& ch : lower) {
        if (ch >= 'A' && ch <= 'Z') ch = static_cast<char>(ch - 'A' + 'a');
    }
    if (!(KRSDKUtility::colorWith(lower) == color)) std::abort();

    // Spaces are dropped wherever they are, before the ends are trimmed.
    std::string spaced = " " + std::string(text) + "  ";
    if (!(KRSDKUtility::colorWith(spaced) == color)) std::abort();
    std::string doubled;
    for (char ch : text) {
        doubled.push_back(ch);
        if (ch == ' ') doubled.push_back(' ');
    }
    if (!(KRSDKUtility::colorWith(doubled) == color)) std::abort();
    return 0;
}

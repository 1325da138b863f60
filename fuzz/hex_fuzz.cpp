// Hex decoding: any text must decode without reading out of bounds, give one
// byte per pair of UTF-16 units (each pair read as strtol reads it in base 16),
// and the hex text of any bytes must decode back to those bytes.
#include <krcommon/util/EncryptCommon.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using krcommon::EncryptCommon;
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const auto decoded = EncryptCommon::stringToHexData(text);

    bool ascii = true;
    for (const char c : text) ascii &= static_cast<unsigned char>(c) < 0x80;
    if (ascii) {
        if (decoded.size() != size / 2) std::abort();
        for (std::size_t i = 0; i < decoded.size(); ++i) {
            const char pair[3] = {text[2 * i], text[2 * i + 1], '\0'};
            if (decoded[i] != static_cast<std::uint8_t>(std::strtol(pair, nullptr, 16))) std::abort();
        }
    } else if (decoded.size() > size / 2) {
        std::abort();  // UTF-16 units never outnumber UTF-8 bytes
    }

    const std::string hex = EncryptCommon::dataToHexString({data, size});
    if (hex.size() != 2 * size) std::abort();
    for (const char c : hex) {
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) std::abort();
    }
    const auto back = EncryptCommon::stringToHexData(hex);
    if (back.size() != size || (size != 0 && !std::equal(back.begin(), back.end(), data))) std::abort();
    return 0;
}

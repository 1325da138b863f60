// Base64: decoding any text must agree with a plain strict decoder written
// here (standard alphabet, length a multiple of 4, one or two "=" only at the
// end, nothing else), and encoding any bytes must give padded text of the
// expected length that decodes back to those bytes.
#include <krcommon/platform/app/SystemLog.h>
#include <krcommon/util/EncryptCommon.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string_view>
#include <vector>

namespace {

struct Silent : krcommon::platform::LogSink {
    void write(std::string_view) override {}
};

int digit(char c) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
}

std::optional<std::vector<std::uint8_t>> referenceDecode(std::string_view text) {
    if (text.size() % 4 != 0) return std::nullopt;
    std::size_t padding = 0;
    while (padding < 2 && padding < text.size() && text[text.size() - 1 - padding] == '=') ++padding;
    std::vector<std::uint8_t> out;
    std::uint32_t bits = 0;
    int count = 0;
    for (std::size_t i = 0; i < text.size() - padding; ++i) {
        const int d = digit(text[i]);
        if (d < 0) return std::nullopt;
        bits = (bits << 6) | static_cast<std::uint32_t>(d);
        count += 6;
        if (count >= 8) {
            count -= 8;
            out.push_back(static_cast<std::uint8_t>(bits >> count));
        }
    }
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using krcommon::EncryptCommon;
    static const bool quiet = (krcommon::platform::SystemLog::setSink(std::make_shared<Silent>()), true);
    (void)quiet;
    const std::string_view text(reinterpret_cast<const char*>(data), size);

    if (EncryptCommon::decodeBase64(text) != referenceDecode(text)) std::abort();

    const auto encoded = EncryptCommon().Base64EncodingWithData(std::span<const std::uint8_t>(data, size));
    if (!encoded || encoded->size() != (size + 2) / 3 * 4) std::abort();
    const auto back = EncryptCommon::decodeBase64(*encoded);
    if (!back || back->size() != size || !std::equal(back->begin(), back->end(), data)) std::abort();
    return 0;
}

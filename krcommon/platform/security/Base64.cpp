#include <krcommon/platform/security/Base64.h>

#include <openssl/evp.h>

#include <array>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace krcommon::platform {

namespace {

constexpr char encodingBaseTable[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// The two output characters of every 12-bit half of a three-byte group, so
// that a whole group takes two lookups.
constexpr std::array<std::array<char, 2>, 4096> makeBase64Pairs() {
    std::array<std::array<char, 2>, 4096> table{};
    for (std::size_t i = 0; i < 4096; ++i) table[i] = {encodingBaseTable[i >> 6], encodingBaseTable[i & 0x3F]};
    return table;
}
constexpr auto kBase64Pairs = makeBase64Pairs();

constexpr std::array<bool, 256> makeAlphabet() {
    std::array<bool, 256> table{};
    for (char c = 'A'; c <= 'Z'; ++c) table[static_cast<unsigned char>(c)] = true;
    for (char c = 'a'; c <= 'z'; ++c) table[static_cast<unsigned char>(c)] = true;
    for (char c = '0'; c <= '9'; ++c) table[static_cast<unsigned char>(c)] = true;
    table['+'] = true;
    table['/'] = true;
    return table;
}

constexpr std::array<bool, 256> kAlphabet = makeAlphabet();

// The decoder takes an int length; larger texts go through in slices of this
// many characters (a multiple of 4, so groups never straddle two slices).
constexpr std::size_t kSlice = std::size_t{1} << 30;

}  // namespace

std::optional<Data> Base64::decode(std::string_view text) {
    const std::size_t length = text.size();
    if (length % 4 != 0) return std::nullopt;
    if (length == 0) return Data{};

    // Padding: at most two "=" and only as the last characters.
    std::size_t padding = 0;
    if (text[length - 1] == '=') padding = text[length - 2] == '=' ? 2 : 1;
    const std::size_t body = length - padding;

    // The decoder rejects every byte outside the alphabet inside a group, but it
    // reads "=" anywhere as a zero digit and trims blanks, line ends and "="
    // from both ends. So "=" before the padding is refused here, both ends must
    // be alphabet characters, and any trimming shows as a short output below.
    if (!kAlphabet[static_cast<unsigned char>(text[0])] || !kAlphabet[static_cast<unsigned char>(text[body - 1])] ||
        std::memchr(text.data(), '=', body) != nullptr) {
        return std::nullopt;
    }

    // Three bytes per group, counting the padded ones, which are dropped afterwards.
    Data out(length / 4 * 3);
    const auto* in = reinterpret_cast<const unsigned char*>(text.data());
    std::size_t produced = 0;
    for (std::size_t offset = 0; offset < length; offset += kSlice) {
        const std::size_t slice = std::min(kSlice, length - offset);
        const int n = EVP_DecodeBlock(out.data() + produced, in + offset, static_cast<int>(slice));
        if (n < 0 || static_cast<std::size_t>(n) != slice / 4 * 3) return std::nullopt;
        produced += static_cast<std::size_t>(n);
    }
    out.resize(produced - padding);
    return out;
}

void Base64::encode(const std::uint8_t* in, std::size_t length, char* out) noexcept {
    std::size_t i = 0;
    for (; i + 3 <= length; i += 3, out += 4) {
        const std::uint32_t group = (std::uint32_t{in[i]} << 16) | (std::uint32_t{in[i + 1]} << 8) | in[i + 2];
        std::memcpy(out, kBase64Pairs[group >> 12].data(), 2);
        std::memcpy(out + 2, kBase64Pairs[group & 0xFFF].data(), 2);
    }
    const std::size_t k = length - i;  // 0, 1 or 2 bytes left
    if (k == 0) return;
    const std::uint8_t b0 = in[i];
    const std::uint8_t b1 = k > 1 ? in[i + 1] : 0;
    out[0] = encodingBaseTable[b0 >> 2];
    out[1] = encodingBaseTable[((b0 & 0x03) << 4) | (b1 >> 4)];
    out[2] = k > 1 ? encodingBaseTable[(b1 & 0x0F) << 2] : '=';
    out[3] = '=';
}

}  // namespace krcommon::platform

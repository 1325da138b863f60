#include <krcommon/util/EncryptCommon.h>

#include <krcommon/errors/KRSDKLogger.h>
#include <krcommon/platform/io/UTF8.h>
#include <krcommon/platform/security/Base64.h>
#include <krcommon/platform/security/Cryptor.h>
#include <krcommon/platform/security/Digest.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

namespace krcommon {

namespace {

constexpr std::string_view kFile = "EncryptCommon";
constexpr std::string_view kPrefix = "Common";
constexpr std::int32_t kErrorLevel = 2;

constexpr std::string_view kBase64Function = "-[EncryptCommon Base64EncodingWithData:]";
constexpr std::string_view kEncryptFunction = "+[EncryptCommon AESEncryWithkey:keyLength:content:ivVector:]";
constexpr std::string_view kDecryptFunction = "+[EncryptCommon AESDecryWithkey:keyLength:content:ivVector:]";

// ---- hex ---------------------------------------------------------------

constexpr char kHexDigits[] = "0123456789abcdef";

// Two lower-case hex digits for every byte value.
constexpr std::array<std::array<char, 2>, 256> makeHexPairs() {
    std::array<std::array<char, 2>, 256> table{};
    for (std::size_t i = 0; i < 256; ++i) table[i] = {kHexDigits[i >> 4], kHexDigits[i & 0xF]};
    return table;
}
constexpr auto kHexPairs = makeHexPairs();

// The value of a hex digit, or -1 for any other byte.
constexpr std::array<std::int8_t, 256> makeHexValues() {
    std::array<std::int8_t, 256> table{};
    for (auto& v : table) v = -1;
    for (int i = 0; i < 10; ++i) table[static_cast<std::size_t>('0' + i)] = static_cast<std::int8_t>(i);
    for (int i = 0; i < 6; ++i) {
        table[static_cast<std::size_t>('a' + i)] = static_cast<std::int8_t>(10 + i);
        table[static_cast<std::size_t>('A' + i)] = static_cast<std::int8_t>(10 + i);
    }
    return table;
}
constexpr auto kHexValues = makeHexValues();

void appendHex(const std::uint8_t* bytes, std::size_t count, char* out) noexcept {
    for (std::size_t i = 0; i < count; ++i) std::memcpy(out + 2 * i, kHexPairs[bytes[i]].data(), 2);
}

// One byte from two characters, read the way strtol reads "<a><b>" in base
// 16: leading blanks, a sign, a "0x" prefix and a stop at the first non-digit
// all count. Two plain hex digits, the usual case, skip the library call.
std::uint8_t pairValue(unsigned char a, unsigned char b) noexcept {
    const int high = kHexValues[a];
    const int low = kHexValues[b];
    if ((high | low) >= 0) return static_cast<std::uint8_t>((high << 4) | low);
    const char buffer[3] = {static_cast<char>(a), static_cast<char>(b), '\0'};
    return static_cast<std::uint8_t>(std::strtol(buffer, nullptr, 16));
}

// The text's UTF-16 code units, each narrowed to its low byte, as the
// character-by-character reading of a platform string sees them. Malformed
// UTF-8 reads as U+FFFD.
std::vector<unsigned char> narrowedUTF16Units(std::string_view text) {
    std::vector<unsigned char> units;
    units.reserve(text.size());
    std::size_t i = 0;
    while (i < text.size()) {
        const auto lead = static_cast<unsigned char>(text[i]);
        if (lead < 0x80) {
            units.push_back(lead);
            ++i;
            continue;
        }
        const std::size_t length = platform::UTF8::sequenceLength(text.substr(i));
        if (length == 0) {
            units.push_back(0xFD);  // U+FFFD
            ++i;
            continue;
        }
        char32_t cp = lead & (0xFF >> (length + 1));
        for (std::size_t k = 1; k < length; ++k) cp = (cp << 6) | (static_cast<unsigned char>(text[i + k]) & 0x3F);
        if (cp >= 0x10000) {
            const char32_t v = cp - 0x10000;
            units.push_back(static_cast<unsigned char>(0xD800 + (v >> 10)));    // high surrogate
            units.push_back(static_cast<unsigned char>(0xDC00 + (v & 0x3FF)));  // low surrogate
        } else {
            units.push_back(static_cast<unsigned char>(cp));
        }
        i += length;
    }
    return units;
}

platform::Data hexPairsToData(const unsigned char* chars, std::size_t count) {
    platform::Data out(count / 2);
    for (std::size_t i = 0; i < out.size(); ++i) out[i] = pairValue(chars[2 * i], chars[2 * i + 1]);
    return out;
}

// ---- AES ---------------------------------------------------------------

struct AESCall {
    platform::CryptorOperation operation;
    std::string_view function;
    std::uint64_t contentLine;
    std::uint64_t keyLengthLine;
};

void logError(std::string_view function, std::uint64_t line, std::string_view message) {
    KRSDKLogger::log(kFile, function, line, kPrefix, kErrorLevel, message);
}

std::optional<platform::Data> aes(const AESCall& call, EncryptCommon::Bytes key, std::int64_t keyLength,
                                  EncryptCommon::Bytes content, EncryptCommon::Bytes ivVector) {
    if (!content) {
        logError(call.function, call.contentLine, "content text can not be nil");
        return std::nullopt;
    }
    if (keyLength != 128 && keyLength != 256) {
        logError(call.function, call.keyLengthLine, "only 128 256 key length support");
        return std::nullopt;
    }
    const std::size_t keySize = keyLength == 128 ? 16 : 32;
    // A present key or IV shorter than the cipher reads is refused rather than
    // read past its end. An absent key goes on to the cipher, which rejects it.
    if (key && key->size() < keySize) {
        logError(call.function, __LINE__, "key is shorter than key length");
        return std::nullopt;
    }
    if (ivVector && ivVector->size() < platform::Cryptor::kAESBlockSize) {
        logError(call.function, __LINE__, "iv vector is shorter than 16 bytes");
        return std::nullopt;
    }

    platform::Data buffer(content->size() + platform::Cryptor::kAESBlockSize);
    std::size_t moved = 0;
    const platform::CryptorStatus status = platform::Cryptor::crypt(
        call.operation, key ? key->data() : nullptr, keySize, ivVector ? ivVector->data() : nullptr,
        content->data(), content->size(), buffer.data(), buffer.size(), &moved);
    if (status != platform::CryptorStatus::Success) return std::nullopt;
    buffer.resize(moved);
    return buffer;
}

}  // namespace

std::string EncryptCommon::NSStringCCHashFunction(HashFunction hashFunction, std::size_t digestLen,
                                                  std::optional<std::string_view> plainText) {
    const std::string_view text = plainText.value_or(std::string_view{});
    std::array<std::uint8_t, 64> small{};
    std::vector<std::uint8_t> large;
    std::uint8_t* digest = small.data();
    if (digestLen > small.size()) {
        large.resize(digestLen);
        digest = large.data();
    }
    hashFunction(text.data(), text.size(), digest);
    std::string out(2 * digestLen, '\0');
    appendHex(digest, digestLen, out.data());
    return out;
}

std::string EncryptCommon::md5Str(std::optional<std::string_view> str) {
    return NSStringCCHashFunction(&platform::Digest::md5, platform::Digest::kMD5Length, str);
}

std::string EncryptCommon::sha1Str(std::optional<std::string_view> str) {
    return NSStringCCHashFunction(&platform::Digest::sha1, platform::Digest::kSHA1Length, str);
}

platform::Data EncryptCommon::stringToHexData(std::string_view hexString) {
    bool ascii = true;
    for (const char c : hexString) ascii &= static_cast<unsigned char>(c) < 0x80;
    if (ascii) return hexPairsToData(reinterpret_cast<const unsigned char*>(hexString.data()), hexString.size());
    const std::vector<unsigned char> units = narrowedUTF16Units(hexString);
    return hexPairsToData(units.data(), units.size());
}

std::string EncryptCommon::dataToHexString(std::span<const std::uint8_t> data) {
    std::string out(2 * data.size(), '\0');
    appendHex(data.data(), data.size(), out.data());
    return out;
}

std::optional<std::string> EncryptCommon::Base64EncodingWithData(Bytes data) const {
    if (!data) {
        logError(kBase64Function, 72, "base64 data is nil");
        return std::nullopt;
    }
    const std::size_t length = data->size();
    if (length > (std::string().max_size() / 4) * 3 - 2) return std::nullopt;
    try {
        std::string out((length + 2) / 3 * 4, '\0');
        platform::Base64::encode(data->data(), length, out.data());
        return out;
    } catch (const std::bad_alloc&) {
        return std::nullopt;
    }
}

std::optional<platform::Data> EncryptCommon::decodeBase64(std::string_view base64) {
    return platform::Base64::decode(base64);
}

std::optional<platform::Data> EncryptCommon::AESEncryWithkey(Bytes key, std::int64_t keyLength, Bytes content,
                                                             Bytes ivVector) {
    static constexpr AESCall call{platform::CryptorOperation::Encrypt, kEncryptFunction, 113, 117};
    return aes(call, key, keyLength, content, ivVector);
}

std::optional<platform::Data> EncryptCommon::AESDecryWithkey(Bytes key, std::int64_t keyLength, Bytes content,
                                                             Bytes ivVector) {
    static constexpr AESCall call{platform::CryptorOperation::Decrypt, kDecryptFunction, 151, 155};
    return aes(call, key, keyLength, content, ivVector);
}

void EncryptCommon::testNSDataEncry() {}

void EncryptCommon::testFunction() {}

}  // namespace krcommon

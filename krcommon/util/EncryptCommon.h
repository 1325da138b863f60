#pragma once

// Digest, hex, Base64 and AES helpers shared by the module and offered to the
// SDK's sibling modules. Every operation is reentrant and keeps no state.

#include <krcommon/platform/core/Export.h>
#include <krcommon/platform/core/Value.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace krcommon {

class KRCOMMON_EXPORT EncryptCommon {
public:
    /// A read-only view of bytes; absent is std::nullopt. Accepts a
    /// platform::Data (or an optional one) directly.
    using Bytes = std::optional<std::span<const std::uint8_t>>;

    /// A digest function: hashes `length` bytes at `data` into `digest`.
    using HashFunction = void (*)(const void* data, std::size_t length, std::uint8_t* digest);

    /// The lower-case hex text of `hashFunction` over the UTF-8 bytes of
    /// `plainText` (absent hashes as empty input); 2 x `digestLen` characters.
    /// `digestLen` must be the number of bytes `hashFunction` writes.
    static std::string NSStringCCHashFunction(HashFunction hashFunction, std::size_t digestLen,
                                              std::optional<std::string_view> plainText);

    /// MD5 of the UTF-8 bytes of `str` as 32 lower-case hex characters; absent
    /// hashes as empty input. Throws as platform::Digest::md5 does (no MD5 in the crypto library).
    static std::string md5Str(std::optional<std::string_view> str);

    /// SHA-1 of the UTF-8 bytes of `str` as 40 lower-case hex characters;
    /// absent hashes as empty input. Throws as platform::Digest::sha1 does.
    static std::string sha1Str(std::optional<std::string_view> str);

    /// Hex text to bytes, two characters per byte. Nothing is validated: an odd
    /// trailing character is ignored, each pair is read as `strtol` base 16
    /// reads it (so "zz" gives 0x00, "1g" gives 0x01) and its low 8 bits are
    /// kept; upper and lower case both parse. Characters are the text's UTF-16
    /// code units, each narrowed to its low byte.
    static platform::Data stringToHexData(std::string_view hexString);

    /// Bytes to lower-case hex text, two digits per byte; empty input gives "".
    static std::string dataToHexString(std::span<const std::uint8_t> data);

    /// Standard Base64 (RFC 4648 alphabet) with padding and no line breaks.
    /// Absent input logs "base64 data is nil" and gives nothing; empty input
    /// gives "".
    std::optional<std::string> Base64EncodingWithData(Bytes data) const;

    /// Strict Base64 decoding: standard alphabet, length a multiple of 4,
    /// padding only at the end, no whitespace. Invalid input gives nothing.
    static std::optional<platform::Data> decodeBase64(std::string_view base64);

    /// AES-CBC with PKCS#7 padding. `keyLength` is in bits and must be 128 or
    /// 256; the key must hold at least 16 or 32 bytes respectively (only that
    /// many are used). The IV, when present, must hold at least 16 bytes (only
    /// 16 are used); when absent an all-zero IV is used. Refusals (absent
    /// content, other key lengths, short key or IV) write one error line and
    /// give nothing; a cipher failure gives nothing silently.
    static std::optional<platform::Data> AESEncryWithkey(Bytes key, std::int64_t keyLength, Bytes content,
                                                          Bytes ivVector);

    /// The inverse of `AESEncryWithkey`, with the same arguments and refusals.
    /// A wrong key or damaged ciphertext normally fails the padding check and
    /// gives nothing, silently.
    static std::optional<platform::Data> AESDecryWithkey(Bytes key, std::int64_t keyLength, Bytes content,
                                                          Bytes ivVector);

    /// Kept for callers that still reference them; both do nothing.
    static void testNSDataEncry();
    static void testFunction();
};

}  // namespace krcommon

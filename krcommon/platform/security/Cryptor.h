#pragma once

// One-shot AES in CBC mode with PKCS#7 padding, shaped like the platform's
// one-call symmetric cipher: a status code plus the bytes written into a
// caller-supplied buffer.

#include <krcommon/platform/core/Export.h>

#include <cstddef>
#include <cstdint>

namespace krcommon::platform {

/// Results of `Cryptor::crypt`, with the platform's numeric values.
enum class CryptorStatus : std::int32_t {
    Success = 0,
    ParamError = -4300,      ///< null key, key size not 16/24/32, null input or output
    BufferTooSmall = -4301,  ///< the output buffer cannot hold the result
    MemoryFailure = -4302,   ///< the cipher backend could not be set up
    AlignmentError = -4303,  ///< ciphertext length is not a multiple of the block size
    DecodeError = -4304,     ///< the padding of the decrypted data is invalid
};

enum class CryptorOperation : std::uint8_t { Encrypt, Decrypt };

class KRCOMMON_EXPORT Cryptor {
public:
    static constexpr std::size_t kAESBlockSize = 16;

    /// Encrypts or decrypts `dataInLength` bytes at `dataIn` with AES-CBC and
    /// PKCS#7 padding into `dataOut` (room for `dataOutAvailable` bytes) and
    /// stores the number of bytes produced in `*dataOutMoved` (when not null).
    ///
    /// `keyLength` is 16, 24 or 32 bytes. `iv` points at 16 bytes, or is null
    /// for an all-zero IV. Encryption needs room for the input rounded up to the
    /// next multiple of 16 (a whole extra block when already a multiple);
    /// decryption needs room for the input length. On BufferTooSmall
    /// `*dataOutMoved` receives the room needed. On a padding failure the
    /// output buffer may hold decrypted bytes; nothing in it is valid.
    static CryptorStatus crypt(CryptorOperation operation, const void* key, std::size_t keyLength, const void* iv,
                               const void* dataIn, std::size_t dataInLength, void* dataOut,
                               std::size_t dataOutAvailable, std::size_t* dataOutMoved) noexcept;

    Cryptor() = delete;
};

}  // namespace krcommon::platform

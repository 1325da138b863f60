#include <krcommon/platform/security/Cryptor.h>

#include <openssl/evp.h>

#include <algorithm>
#include <climits>

namespace krcommon::platform {

namespace {

// Ciphers are fetched once for the life of the process; an implicit fetch on
// every call would cost a provider lookup per message.
const EVP_CIPHER* cipherForKeyLength(std::size_t keyLength) {
    static EVP_CIPHER* const aes128 = EVP_CIPHER_fetch(nullptr, "AES-128-CBC", nullptr);
    static EVP_CIPHER* const aes192 = EVP_CIPHER_fetch(nullptr, "AES-192-CBC", nullptr);
    static EVP_CIPHER* const aes256 = EVP_CIPHER_fetch(nullptr, "AES-256-CBC", nullptr);
    switch (keyLength) {
        case 16: return aes128;
        case 24: return aes192;
        case 32: return aes256;
        default: return nullptr;
    }
}

// One context per thread, re-initialised by each call, so a call allocates nothing.
struct ThreadContext {
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    ~ThreadContext() { EVP_CIPHER_CTX_free(ctx); }
    ThreadContext() = default;
    ThreadContext(const ThreadContext&) = delete;
    ThreadContext& operator=(const ThreadContext&) = delete;
};

// The update call takes an int length: feed larger inputs in block-aligned slices.
constexpr std::size_t kSlice = std::size_t{1} << 30;

bool update(EVP_CIPHER_CTX* ctx, const unsigned char* in, std::size_t length, unsigned char* out,
            std::size_t& produced) {
    for (std::size_t offset = 0; offset < length; offset += kSlice) {
        const std::size_t slice = std::min(kSlice, length - offset);
        int n = 0;
        if (EVP_CipherUpdate(ctx, out + produced, &n, in + offset, static_cast<int>(slice)) != 1) return false;
        produced += static_cast<std::size_t>(n);
    }
    return true;
}

// The PKCS#7 pad length of a decrypted, block-aligned buffer, or 0 when the
// padding is invalid. Reads the whole last block without data-dependent
// branches, so the time taken does not tell where the padding went wrong.
std::size_t pkcs7PadLength(const unsigned char* data, std::size_t length) {
    const unsigned pad = data[length - 1];
    unsigned bad = static_cast<unsigned>(pad == 0) | static_cast<unsigned>(pad > Cryptor::kAESBlockSize);
    for (unsigned i = 0; i < Cryptor::kAESBlockSize; ++i) {
        const unsigned inPadding = static_cast<unsigned>(i < pad);
        bad |= inPadding & static_cast<unsigned>(data[length - 1 - i] != pad);
    }
    return bad != 0 ? 0 : pad;
}

}  // namespace

CryptorStatus Cryptor::crypt(CryptorOperation operation, const void* key, std::size_t keyLength, const void* iv,
                             const void* dataIn, std::size_t dataInLength, void* dataOut,
                             std::size_t dataOutAvailable, std::size_t* dataOutMoved) noexcept {
    if (dataOutMoved != nullptr) *dataOutMoved = 0;
    const EVP_CIPHER* cipher = cipherForKeyLength(keyLength);
    if (key == nullptr || (keyLength != 16 && keyLength != 24 && keyLength != 32) ||
        (dataIn == nullptr && dataInLength != 0) || dataOut == nullptr) {
        return CryptorStatus::ParamError;
    }
    if (cipher == nullptr) return CryptorStatus::MemoryFailure;

    const bool encrypt = operation == CryptorOperation::Encrypt;
    if (!encrypt) {
        if (dataInLength % kAESBlockSize != 0) return CryptorStatus::AlignmentError;
        // Not even a padding block: nothing to strip, so the data is not PKCS#7.
        if (dataInLength == 0) return CryptorStatus::DecodeError;
    }
    const std::size_t needed = encrypt ? (dataInLength / kAESBlockSize + 1) * kAESBlockSize : dataInLength;
    if (dataOutAvailable < needed) {
        if (dataOutMoved != nullptr) *dataOutMoved = needed;
        return CryptorStatus::BufferTooSmall;
    }

    thread_local ThreadContext context;
    EVP_CIPHER_CTX* ctx = context.ctx;
    if (ctx == nullptr) return CryptorStatus::MemoryFailure;
    // The key schedule is wiped when the call ends, whichever way it ends.
    struct Wipe {
        EVP_CIPHER_CTX* ctx;
        ~Wipe() { EVP_CIPHER_CTX_reset(ctx); }
    } wipe{ctx};

    static const unsigned char zeroIV[kAESBlockSize] = {};
    const auto* keyBytes = static_cast<const unsigned char*>(key);
    const auto* ivBytes = iv != nullptr ? static_cast<const unsigned char*>(iv) : zeroIV;
    if (EVP_CipherInit_ex2(ctx, cipher, keyBytes, ivBytes, encrypt ? 1 : 0, nullptr) != 1) {
        return CryptorStatus::MemoryFailure;
    }
    // Decryption strips the padding itself (see pkcs7PadLength), so that the
    // output never needs more room than the input.
    EVP_CIPHER_CTX_set_padding(ctx, encrypt ? 1 : 0);

    static const unsigned char empty = 0;
    const auto* in = dataIn != nullptr ? static_cast<const unsigned char*>(dataIn) : &empty;
    auto* out = static_cast<unsigned char*>(dataOut);
    std::size_t produced = 0;
    int tail = 0;
    if (!update(ctx, in, dataInLength, out, produced) || EVP_CipherFinal_ex(ctx, out + produced, &tail) != 1) {
        return encrypt ? CryptorStatus::MemoryFailure : CryptorStatus::DecodeError;
    }
    produced += static_cast<std::size_t>(tail);

    if (!encrypt) {
        const std::size_t pad = pkcs7PadLength(out, produced);
        if (pad == 0) return CryptorStatus::DecodeError;
        produced -= pad;
    }
    if (dataOutMoved != nullptr) *dataOutMoved = produced;
    return CryptorStatus::Success;
}

}  // namespace krcommon::platform

#include <krcommon/platform/security/Digest.h>

#include <krcommon/platform/core/Exception.h>

#include <openssl/evp.h>

#include <string>

namespace krcommon::platform {

namespace {

// Algorithms are fetched once: an implicit fetch on every call would cost a
// provider lookup per digest. They stay loaded for the life of the process.
const EVP_MD* fetchedMD5() {
    static EVP_MD* const md = EVP_MD_fetch(nullptr, "MD5", nullptr);
    return md;
}

const EVP_MD* fetchedSHA1() {
    static EVP_MD* const md = EVP_MD_fetch(nullptr, "SHA1", nullptr);
    return md;
}

// One context per thread, reset by each init, so a digest allocates nothing.
struct ThreadContext {
    EVP_MD_CTX* ctx = EVP_MD_CTX_new();
    ~ThreadContext() { EVP_MD_CTX_free(ctx); }
    ThreadContext() = default;
    ThreadContext(const ThreadContext&) = delete;
    ThreadContext& operator=(const ThreadContext&) = delete;
};

void run(const EVP_MD* md, const char* name, const void* data, std::size_t length, std::uint8_t* digest,
         std::size_t digestLength) {
    thread_local ThreadContext context;
    static const unsigned char empty = 0;
    unsigned int written = 0;
    const bool ok = md != nullptr && context.ctx != nullptr &&
                    EVP_DigestInit_ex2(context.ctx, md, nullptr) == 1 &&
                    EVP_DigestUpdate(context.ctx, data != nullptr ? data : &empty, length) == 1 &&
                    EVP_DigestFinal_ex(context.ctx, digest, &written) == 1 && written == digestLength;
    if (!ok) {
        throw Exception("NSGenericException", std::string(name) + " digest is not available from the crypto library");
    }
}

}  // namespace

void Digest::md5(const void* data, std::size_t length, std::uint8_t* digest) {
    run(fetchedMD5(), "MD5", data, length, digest, kMD5Length);
}

void Digest::sha1(const void* data, std::size_t length, std::uint8_t* digest) {
    run(fetchedSHA1(), "SHA-1", data, length, digest, kSHA1Length);
}

}  // namespace krcommon::platform

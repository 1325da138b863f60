// Digest, cipher, Base64 and hex helpers against OpenSSL doing the same work
// directly: EVP digests with a plain nibble-table hex, EVP AES-CBC with a fresh
// context per message, EVP_EncodeBlock / EVP_DecodeBlock, and OpenSSL's own
// hex-string conversions. Every case is run on 1 KiB and 1 MiB inputs.

#include <krcommon/util/EncryptCommon.h>

#include <benchmark/benchmark.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace {

using krcommon::EncryptCommon;
using Bytes = std::vector<std::uint8_t>;

Bytes randomBytes(std::size_t count) {
    std::mt19937 engine(42);
    Bytes bytes(count);
    for (auto& b : bytes) b = static_cast<std::uint8_t>(engine());
    return bytes;
}

std::string randomText(std::size_t count) {
    const Bytes bytes = randomBytes(count);
    return std::string(bytes.begin(), bytes.end());
}

void sizes(benchmark::internal::Benchmark* b) { b->Arg(1 << 10)->Arg(1 << 20); }

void setBytes(benchmark::State& state) { state.SetBytesProcessed(state.iterations() * state.range(0)); }

std::string baselineHex(const unsigned char* digest, unsigned int length) {
    static const char digits[] = "0123456789abcdef";
    std::string out(2 * length, '\0');
    for (unsigned int i = 0; i < length; ++i) {
        out[2 * i] = digits[digest[i] >> 4];
        out[2 * i + 1] = digits[digest[i] & 0xF];
    }
    return out;
}

std::string baselineDigest(const std::string& text, const EVP_MD* md) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(text.data(), text.size(), digest, &length, md, nullptr);
    return baselineHex(digest, length);
}

// ---- digests ---------------------------------------------------------------

void KR_md5Str(benchmark::State& state) {
    const std::string text = randomText(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) benchmark::DoNotOptimize(EncryptCommon::md5Str(text));
    setBytes(state);
}
BENCHMARK(KR_md5Str)->Apply(sizes);

void BASE_md5Str(benchmark::State& state) {
    const std::string text = randomText(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) benchmark::DoNotOptimize(baselineDigest(text, EVP_md5()));
    setBytes(state);
}
BENCHMARK(BASE_md5Str)->Apply(sizes);

void KR_sha1Str(benchmark::State& state) {
    const std::string text = randomText(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) benchmark::DoNotOptimize(EncryptCommon::sha1Str(text));
    setBytes(state);
}
BENCHMARK(KR_sha1Str)->Apply(sizes);

void BASE_sha1Str(benchmark::State& state) {
    const std::string text = randomText(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) benchmark::DoNotOptimize(baselineDigest(text, EVP_sha1()));
    setBytes(state);
}
BENCHMARK(BASE_sha1Str)->Apply(sizes);

// ---- AES-CBC encryption ------------------------------------------------------

template <int Bits>
void KR_AESEncrypt(benchmark::State& state) {
    const Bytes plain = randomBytes(static_cast<std::size_t>(state.range(0)));
    const Bytes key(Bits / 8, 0x5A);
    const Bytes iv(16, 0x11);
    for (auto _ : state) benchmark::DoNotOptimize(EncryptCommon::AESEncryWithkey(key, Bits, plain, iv));
    setBytes(state);
}

template <int Bits>
void BASE_AESEncrypt(benchmark::State& state) {
    const Bytes plain = randomBytes(static_cast<std::size_t>(state.range(0)));
    const Bytes key(Bits / 8, 0x5A);
    const Bytes iv(16, 0x11);
    const EVP_CIPHER* cipher = Bits == 128 ? EVP_aes_128_cbc() : EVP_aes_256_cbc();
    for (auto _ : state) {
        Bytes out(plain.size() + 16);
        EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
        int n = 0;
        int tail = 0;
        EVP_EncryptInit_ex(ctx, cipher, nullptr, key.data(), iv.data());
        EVP_EncryptUpdate(ctx, out.data(), &n, plain.data(), static_cast<int>(plain.size()));
        EVP_EncryptFinal_ex(ctx, out.data() + n, &tail);
        EVP_CIPHER_CTX_free(ctx);
        out.resize(static_cast<std::size_t>(n + tail));
        benchmark::DoNotOptimize(out);
    }
    setBytes(state);
}

void KR_AES128CBCEncrypt(benchmark::State& state) { KR_AESEncrypt<128>(state); }
void BASE_AES128CBCEncrypt(benchmark::State& state) { BASE_AESEncrypt<128>(state); }
void KR_AES256CBCEncrypt(benchmark::State& state) { KR_AESEncrypt<256>(state); }
void BASE_AES256CBCEncrypt(benchmark::State& state) { BASE_AESEncrypt<256>(state); }
BENCHMARK(KR_AES128CBCEncrypt)->Apply(sizes);
BENCHMARK(BASE_AES128CBCEncrypt)->Apply(sizes);
BENCHMARK(KR_AES256CBCEncrypt)->Apply(sizes);
BENCHMARK(BASE_AES256CBCEncrypt)->Apply(sizes);

// ---- Base64 -----------------------------------------------------------------

void KR_Base64Encode(benchmark::State& state) {
    const Bytes data = randomBytes(static_cast<std::size_t>(state.range(0)));
    const EncryptCommon common;
    for (auto _ : state) benchmark::DoNotOptimize(common.Base64EncodingWithData(data));
    setBytes(state);
}
BENCHMARK(KR_Base64Encode)->Apply(sizes);

void BASE_Base64Encode(benchmark::State& state) {
    const Bytes data = randomBytes(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) {
        std::string out((data.size() + 2) / 3 * 4, '\0');
        // Writes a terminating NUL too, into the string's own terminator slot.
        EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()), data.data(), static_cast<int>(data.size()));
        benchmark::DoNotOptimize(out);
    }
    setBytes(state);
}
BENCHMARK(BASE_Base64Encode)->Apply(sizes);

void KR_Base64Decode(benchmark::State& state) {
    const auto text = *EncryptCommon().Base64EncodingWithData(randomBytes(static_cast<std::size_t>(state.range(0))));
    for (auto _ : state) benchmark::DoNotOptimize(EncryptCommon::decodeBase64(text));
    setBytes(state);
}
BENCHMARK(KR_Base64Decode)->Apply(sizes);

void BASE_Base64Decode(benchmark::State& state) {
    const auto text = *EncryptCommon().Base64EncodingWithData(randomBytes(static_cast<std::size_t>(state.range(0))));
    for (auto _ : state) {
        Bytes out(text.size() / 4 * 3);
        const int n = EVP_DecodeBlock(out.data(), reinterpret_cast<const unsigned char*>(text.data()),
                                      static_cast<int>(text.size()));
        out.resize(static_cast<std::size_t>(n));
        benchmark::DoNotOptimize(out);
    }
    setBytes(state);
}
BENCHMARK(BASE_Base64Decode)->Apply(sizes);

// ---- hex --------------------------------------------------------------------

void KR_DataToHex(benchmark::State& state) {
    const Bytes data = randomBytes(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) benchmark::DoNotOptimize(EncryptCommon::dataToHexString(data));
    setBytes(state);
}
BENCHMARK(KR_DataToHex)->Apply(sizes);

void BASE_DataToHex(benchmark::State& state) {
    const Bytes data = randomBytes(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) {
        std::string out(2 * data.size() + 1, '\0');
        std::size_t length = 0;
        OPENSSL_buf2hexstr_ex(out.data(), out.size(), &length, data.data(), static_cast<long>(data.size()), '\0');
        out.resize(length - 1);
        benchmark::DoNotOptimize(out);
    }
    setBytes(state);
}
BENCHMARK(BASE_DataToHex)->Apply(sizes);

void KR_HexToData(benchmark::State& state) {
    const std::string hex = EncryptCommon::dataToHexString(randomBytes(static_cast<std::size_t>(state.range(0))));
    for (auto _ : state) benchmark::DoNotOptimize(EncryptCommon::stringToHexData(hex));
    setBytes(state);
}
BENCHMARK(KR_HexToData)->Apply(sizes);

void BASE_HexToData(benchmark::State& state) {
    const std::string hex = EncryptCommon::dataToHexString(randomBytes(static_cast<std::size_t>(state.range(0))));
    for (auto _ : state) {
        Bytes out(hex.size() / 2);
        std::size_t length = 0;
        OPENSSL_hexstr2buf_ex(out.data(), out.size(), &length, hex.c_str(), '\0');
        benchmark::DoNotOptimize(out);
    }
    setBytes(state);
}
BENCHMARK(BASE_HexToData)->Apply(sizes);

}  // namespace

BENCHMARK_MAIN();

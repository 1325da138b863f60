// What the cipher does beyond the module's AES helpers: the 192-bit key size,
// the status codes of short buffers and bad lengths, and its own PKCS#7 check.
#include <krcommon/platform/security/Cryptor.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <ostream>
#include <string>
#include <vector>

using namespace krcommon::platform;
using Bytes = std::vector<std::uint8_t>;

namespace {

Bytes hex(std::string_view text) {
    Bytes out;
    for (std::size_t i = 0; i + 1 < text.size(); i += 2)
        out.push_back(static_cast<std::uint8_t>(std::stoul(std::string(text.substr(i, 2)), nullptr, 16)));
    return out;
}

constexpr auto kEncrypt = CryptorOperation::Encrypt;
constexpr auto kDecrypt = CryptorOperation::Decrypt;

Bytes crypt(CryptorOperation op, const Bytes& key, const Bytes& in, CryptorStatus& status, const Bytes& iv = {}) {
    Bytes out(in.size() + 16);
    std::size_t moved = 0;
    status = Cryptor::crypt(op, key.data(), key.size(), iv.empty() ? nullptr : iv.data(), in.data(), in.size(),
                            out.data(), out.size(), &moved);
    out.resize(status == CryptorStatus::Success ? moved : 0);
    return out;
}

// NIST SP 800-38A, F.2.3 (CBC-AES192.Encrypt).
TEST(Cryptor, Aes192MatchesThePublishedVectorAndItsPaddingIsChecked) {
    const Bytes key = hex("8e73b0f7da0e6452c810f32b809079e562f8ead2522c6b7b"), iv = hex("000102030405060708090a0b0c0d0e0f");
    const Bytes plain = hex("6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51"
                            "30c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710");
    const Bytes vector = hex("4f021db243bc633d7178183a9fa071e8b4d9ada9ad7dedf4e5e738763f69145a"
                             "571b242012fb7ae07fa9baac3df102e008b0e27988598881d920a9e64f5615cd");
    CryptorStatus status{};
    const Bytes sealed = crypt(kEncrypt, key, plain, status, iv);
    ASSERT_EQ(sealed.size(), 80u);  // a whole block of padding
    EXPECT_EQ(Bytes(sealed.begin(), sealed.begin() + 64), vector);
    EXPECT_EQ(crypt(kDecrypt, key, sealed, status, iv), plain);
    crypt(kDecrypt, key, vector, status, iv);  // its last block is no padding
    EXPECT_EQ(status, CryptorStatus::DecodeError);
}

TEST(Cryptor, RefusesBadLengthsAndReportsTheRoomNeeded) {
    using S = CryptorStatus;
    struct Row {
        CryptorOperation op;
        std::size_t keyLength, inLength, room;
        S status;
        std::size_t moved;  // the room needed, on BufferTooSmall
    };
    const Row rows[] = {{kEncrypt, 15, 16, 64, S::ParamError, 0},     {kEncrypt, 33, 16, 64, S::ParamError, 0},
                        {kEncrypt, 16, 17, 31, S::BufferTooSmall, 32}, {kDecrypt, 16, 31, 64, S::AlignmentError, 0},
                        {kDecrypt, 16, 0, 64, S::DecodeError, 0},      {kDecrypt, 24, 32, 31, S::BufferTooSmall, 32}};
    const Bytes key(32, 0x5A), input(32, 0);
    Bytes out(64);
    for (const auto& row : rows) {
        std::size_t moved = 99;
        EXPECT_EQ(Cryptor::crypt(row.op, key.data(), row.keyLength, nullptr, input.data(), row.inLength, out.data(),
                                 row.room, &moved), row.status) << &row - rows;
        EXPECT_EQ(moved, row.moved) << &row - rows;
    }
    EXPECT_EQ(Cryptor::crypt(kEncrypt, key.data(), 16, nullptr, nullptr, 5, out.data(), 64, nullptr), S::ParamError);
}

// Decrypting one block C = E(X xor IV) gives X as the last block, so the
// padding check can be driven with any chosen block X.
struct PaddingRow {
    const char* name;
    const char* lastBlock;
    int kept;  // bytes left after unpadding, -1: refused
    friend void PrintTo(const PaddingRow& r, std::ostream* os) { *os << r.name; }
};

class CryptorPadding : public ::testing::TestWithParam<PaddingRow> {};

TEST_P(CryptorPadding, AcceptsOnlyWellFormedPkcs7) {
    const Bytes key(16, 0x42), iv(16, 0x07), block = hex(GetParam().lastBlock);
    CryptorStatus status{};
    const Bytes sealed = crypt(kEncrypt, key, block, status, iv);
    const Bytes opened = crypt(kDecrypt, key, Bytes(sealed.begin(), sealed.begin() + 16), status, iv);
    EXPECT_EQ(status, GetParam().kept < 0 ? CryptorStatus::DecodeError : CryptorStatus::Success);
    EXPECT_EQ(opened, Bytes(block.begin(), block.begin() + std::max(GetParam().kept, 0)));
}

INSTANTIATE_TEST_SUITE_P(LastBlock, CryptorPadding,
                         ::testing::Values(PaddingRow{"One", "00112233445566778899aabbccddee01", 15},
                                           PaddingRow{"Two", "00112233445566778899aabbccdd0202", 14},
                                           PaddingRow{"FullBlock", "10101010101010101010101010101010", 0},
                                           PaddingRow{"Zero", "00112233445566778899aabbccddee00", -1},
                                           PaddingRow{"Seventeen", "11111111111111111111111111111111", -1},
                                           PaddingRow{"Mismatch", "00112233445566778899aabbcc010303", -1},
                                           PaddingRow{"FirstOfSixteenWrong", "11101010101010101010101010101010", -1}),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace

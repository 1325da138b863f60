#include <krcommon/platform/security/Cryptor.h>

#include "platform/security/OpenSSLTool.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace krcommon::platform;
using krcommon::test::OpenSSLTool;
using Bytes = std::vector<std::uint8_t>;

namespace {

Bytes crypt(CryptorOperation op, const Bytes& key, const Bytes* iv, const Bytes& in, CryptorStatus& status,
            std::size_t room) {
    Bytes out(room);
    std::size_t moved = 0;
    status = Cryptor::crypt(op, key.data(), key.size(), iv ? iv->data() : nullptr, in.data(), in.size(), out.data(),
                            out.size(), &moved);
    out.resize(status == CryptorStatus::Success ? moved : 0);
    return out;
}

// NIST SP 800-38A, F.2: CBC with the same IV and plaintext for every key size.
struct NistRow {
    const char* name;
    const char* key;
    const char* ciphertext;
};

const char* const kNistIV = "000102030405060708090a0b0c0d0e0f";
const char* const kNistPlaintext =
    "6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51"
    "30c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710";

class CryptorNist : public ::testing::TestWithParam<NistRow> {};

TEST_P(CryptorNist, EncryptsTheVectorsAndAddsOnePaddingBlock) {
    const auto& row = GetParam();
    const Bytes key = OpenSSLTool::fromHex(row.key);
    const Bytes iv = OpenSSLTool::fromHex(kNistIV);
    const Bytes plain = OpenSSLTool::fromHex(kNistPlaintext);
    const Bytes expected = OpenSSLTool::fromHex(row.ciphertext);

    CryptorStatus status{};
    const Bytes cipher = crypt(CryptorOperation::Encrypt, key, &iv, plain, status, plain.size() + 16);
    ASSERT_EQ(status, CryptorStatus::Success);
    ASSERT_EQ(cipher.size(), 80u);
    EXPECT_EQ(Bytes(cipher.begin(), cipher.begin() + 64), expected);

    // Round trip, with exactly as much room as the ciphertext.
    EXPECT_EQ(crypt(CryptorOperation::Decrypt, key, &iv, cipher, status, cipher.size()), plain);
    EXPECT_EQ(status, CryptorStatus::Success);

    // The bare vector ends in a plaintext block that is not PKCS#7 padding.
    crypt(CryptorOperation::Decrypt, key, &iv, expected, status, expected.size());
    EXPECT_EQ(status, CryptorStatus::DecodeError);
}

INSTANTIATE_TEST_SUITE_P(
    SP80038A, CryptorNist,
    ::testing::Values(NistRow{"AES128", "2b7e151628aed2a6abf7158809cf4f3c",
                              "7649abac8119b246cee98e9b12e9197d5086cb9b507219ee95db113a917678b2"
                              "73bed6b8e3c1743b7116e69e222295163ff1caa1681fac09120eca307586e1a7"},
                      NistRow{"AES192", "8e73b0f7da0e6452c810f32b809079e562f8ead2522c6b7b",
                              "4f021db243bc633d7178183a9fa071e8b4d9ada9ad7dedf4e5e738763f69145a"
                              "571b242012fb7ae07fa9baac3df102e008b0e27988598881d920a9e64f5615cd"},
                      NistRow{"AES256", "603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4",
                              "f58c4c04d6e5f1ba779eabfb5f7bfbd69cfc4e967edb808d679f777bc6702c7d"
                              "39f23369a9d9bacfa530e26304231461b2eb05e2c39be9fcda6c19078c6a9d1b"}),
    [](const auto& info) { return std::string(info.param.name); });

// Decrypting one block C1 = E(X xor IV) yields X as the final block, so the
// padding check can be driven with any chosen last block X.
struct PaddingRow {
    const char* name;
    std::string lastBlockHex;
    long expectedLength;  // -1: refused
};

class CryptorPadding : public ::testing::TestWithParam<PaddingRow> {};

TEST_P(CryptorPadding, AcceptsOnlyWellFormedPkcs7) {
    const auto& row = GetParam();
    const Bytes key(16, 0x42);
    const Bytes iv(16, 0x07);
    const Bytes block = OpenSSLTool::fromHex(row.lastBlockHex);
    ASSERT_EQ(block.size(), 16u);
    CryptorStatus status{};
    const Bytes cipher = crypt(CryptorOperation::Encrypt, key, &iv, block, status, 32);
    ASSERT_EQ(status, CryptorStatus::Success);
    const Bytes first(cipher.begin(), cipher.begin() + 16);

    const Bytes plain = crypt(CryptorOperation::Decrypt, key, &iv, first, status, 16);
    if (row.expectedLength < 0) {
        EXPECT_EQ(status, CryptorStatus::DecodeError);
    } else {
        ASSERT_EQ(status, CryptorStatus::Success);
        EXPECT_EQ(plain, Bytes(block.begin(), block.begin() + row.expectedLength));
    }
}

INSTANTIATE_TEST_SUITE_P(
    LastBlock, CryptorPadding,
    ::testing::Values(PaddingRow{"One", "00112233445566778899aabbccddee01", 15},
                      PaddingRow{"Two", "00112233445566778899aabbccdd0202", 14},
                      PaddingRow{"FullBlock", "10101010101010101010101010101010", 0},
                      PaddingRow{"Zero", "00112233445566778899aabbccddee00", -1},
                      PaddingRow{"Seventeen", "11111111111111111111111111111111", -1},
                      PaddingRow{"High", "00112233445566778899aabbccddeeff", -1},
                      PaddingRow{"Mismatch", "00112233445566778899aabbcc010303", -1},
                      PaddingRow{"FullBlockFirstByteWrong", "11101010101010101010101010101010", -1}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(Cryptor, RefusesBadParametersAndShortBuffers) {
    const Bytes key(16, 1);
    const Bytes data(17, 2);
    Bytes out(64);
    std::size_t moved = 99;

    EXPECT_EQ(Cryptor::crypt(CryptorOperation::Encrypt, nullptr, 16, nullptr, data.data(), data.size(), out.data(),
                             out.size(), &moved),
              CryptorStatus::ParamError);
    EXPECT_EQ(moved, 0u);
    for (const std::size_t keyLength : {0u, 8u, 15u, 17u, 20u, 33u, 64u}) {
        EXPECT_EQ(Cryptor::crypt(CryptorOperation::Encrypt, out.data(), keyLength, nullptr, data.data(), data.size(),
                                 out.data(), out.size(), &moved),
                  CryptorStatus::ParamError)
            << keyLength;
    }
    EXPECT_EQ(Cryptor::crypt(CryptorOperation::Encrypt, key.data(), 16, nullptr, nullptr, 5, out.data(), out.size(),
                             &moved),
              CryptorStatus::ParamError);

    // 17 bytes encrypt to 32: 31 bytes of room are too few, and the room needed is reported.
    EXPECT_EQ(Cryptor::crypt(CryptorOperation::Encrypt, key.data(), 16, nullptr, data.data(), data.size(), out.data(),
                             31, &moved),
              CryptorStatus::BufferTooSmall);
    EXPECT_EQ(moved, 32u);
    EXPECT_EQ(Cryptor::crypt(CryptorOperation::Encrypt, key.data(), 16, nullptr, data.data(), data.size(), out.data(),
                             32, &moved),
              CryptorStatus::Success);
    EXPECT_EQ(moved, 32u);

    EXPECT_EQ(Cryptor::crypt(CryptorOperation::Decrypt, key.data(), 16, nullptr, out.data(), 31, out.data() + 32, 32,
                             &moved),
              CryptorStatus::AlignmentError);
    EXPECT_EQ(Cryptor::crypt(CryptorOperation::Decrypt, key.data(), 16, nullptr, out.data(), 0, out.data() + 32, 32,
                             &moved),
              CryptorStatus::DecodeError);
    EXPECT_EQ(Cryptor::crypt(CryptorOperation::Decrypt, key.data(), 16, nullptr, out.data(), 32, out.data() + 32, 31,
                             &moved),
              CryptorStatus::BufferTooSmall);
}

}  // namespace

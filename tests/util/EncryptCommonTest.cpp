// Against published vectors: RFC 1321 (MD5), FIPS 180 (SHA-1), RFC 4648 (Base64), NIST SP 800-38A (AES).
#include <krcommon/util/EncryptCommon.h>

#include "support/LogCapture.h"

#include <gtest/gtest.h>

using krcommon::EncryptCommon;
using Bytes = std::vector<std::uint8_t>;

namespace {

Bytes hex(std::string_view text) { return EncryptCommon::stringToHexData(text); }

TEST(EncryptCommon, DigestsMatchThePublishedVectors) {
    const struct { bool sha1; std::optional<std::string> text; const char* hex; } rows[] = {
        {false, std::nullopt, "d41d8cd98f00b204e9800998ecf8427e"}, {false, "abc", "900150983cd24fb0d6963f7d28e17f72"},
        {false, "message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
        {true, "", "da39a3ee5e6b4b0d3255bfef95601890afd80709"}, {true, "abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
        {true, "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq", "84983e441c3bd26ebaae4aa1f95129e5e54670f1"}};
    for (const auto& row : rows)
        EXPECT_EQ(row.sha1 ? EncryptCommon::sha1Str(row.text) : EncryptCommon::md5Str(row.text), row.hex);
}

TEST(EncryptCommon, HexPairsAreReadAsStrtolReadsThem) {
    const std::pair<std::string, Bytes> rows[] = {
        {"0aFF1", {0x0A, 0xFF}}, {"zz", {0x00}}, {"1g", {0x01}}, {"g1", {0x00}}, {" f-1", {0x0F, 0xFF}},
        {"\xc4\xb1\xc4\xb1\xc5\x81\xc5\x81", {0x11, 0xAA}},  // U+0131 narrows to '1', U+0141 to 'A'
        {"\xf0\x9f\x98\x80" "ab", {0x00, 0xAB}}};            // a surrogate pair narrows to '=' and NUL
    for (const auto& [text, bytes] : rows) EXPECT_EQ(EncryptCommon::stringToHexData(text), bytes) << text;
    EXPECT_EQ(EncryptCommon::dataToHexString(Bytes{0x00, 0x7F, 0x80, 0xFF}), "007f80ff");
    EXPECT_EQ(EncryptCommon::dataToHexString(Bytes{}), "");
}

TEST(EncryptCommon, Base64RoundTripsOnOneLineAndDecodesStrictly) {
    const EncryptCommon common;
    for (const auto& [plain, encoded] : {std::pair<std::string, std::string>{"", ""}, {"f", "Zg=="}, {"fo", "Zm8="},
                                         {"foo", "Zm9v"}, {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="},
                                         {"foobar", "Zm9vYmFy"}, {std::string("\0\xFB\xFF\xBF\x80", 5), "APv/v4A="}}) {
        EXPECT_EQ(common.Base64EncodingWithData(Bytes(plain.begin(), plain.end())), encoded);
        EXPECT_EQ(EncryptCommon::decodeBase64(encoded), Bytes(plain.begin(), plain.end())) << encoded;
    }
    EXPECT_EQ(common.Base64EncodingWithData(Bytes(100, 0xFF)), std::string(132, '/') + "/w==");
    for (const std::string& text : std::vector<std::string>{"Zg", "Zg=", "Zg=A", "Z===", "====", "Zg==Zg==", "Zm9v\n",
                                                            "Zm9v\r\nYmFy", " Zm9vYmE", "Zm-_", "Zm9\x80", "Zm\tv",
                                                            std::string("Zm\0v", 4)})
        EXPECT_FALSE(EncryptCommon::decodeBase64(text)) << text;
    krcommon::test::LogCapture log;
    EXPECT_FALSE(common.Base64EncodingWithData(std::nullopt));
    EXPECT_EQ(log.lines(), std::vector<std::string>{"[KRSDK-Common-ERROR-EncryptCommon-72]=>base64 data is nil"});
}

// NIST SP 800-38A F.2.1 / F.2.5; under a zero IV the first block is that of F.1.1 / F.1.5 (ECB).
TEST(EncryptCommon, AesMatchesThePublishedVectorsAndRoundTrips) {
    const struct { int bits; const char *key, *cbc, *firstBlockWithZeroIV; } rows[] = {
        {128, "2b7e151628aed2a6abf7158809cf4f3c",
         "7649abac8119b246cee98e9b12e9197d5086cb9b507219ee95db113a917678b2"
         "73bed6b8e3c1743b7116e69e222295163ff1caa1681fac09120eca307586e1a7", "3ad77bb40d7a3660a89ecaf32466ef97"},
        {256, "603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4",
         "f58c4c04d6e5f1ba779eabfb5f7bfbd69cfc4e967edb808d679f777bc6702c7d"
         "39f23369a9d9bacfa530e26304231461b2eb05e2c39be9fcda6c19078c6a9d1b", "f3eed1bdb5d2a03c064b5a7e3db181f8"}};
    const Bytes plain = hex("6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51"
                            "30c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710");
    const Bytes block(plain.begin(), plain.begin() + 16);
    krcommon::test::LogCapture log;
    for (const auto& row : rows) {
        // Longer keys and IVs than needed: only their leading bytes count.
        const Bytes key = hex(std::string(row.key) + "eeee"), iv = hex("000102030405060708090a0b0c0d0e0fdd");
        const auto sealed = EncryptCommon::AESEncryWithkey(key, row.bits, plain, iv);
        ASSERT_TRUE(sealed && sealed->size() == 80) << row.bits;  // a whole block of padding
        EXPECT_EQ(Bytes(sealed->begin(), sealed->begin() + 64), hex(row.cbc));
        EXPECT_EQ(EncryptCommon::AESDecryWithkey(key, row.bits, sealed, iv), plain);
        const auto zeroIV = EncryptCommon::AESEncryWithkey(key, row.bits, block, std::nullopt);
        ASSERT_TRUE(zeroIV && zeroIV->size() == 32) << row.bits;
        EXPECT_EQ(Bytes(zeroIV->begin(), zeroIV->begin() + 16), hex(row.firstBlockWithZeroIV));
        EXPECT_EQ(EncryptCommon::AESEncryWithkey(key, row.bits, block, Bytes(16, 0)), zeroIV);
        EXPECT_EQ(EncryptCommon::AESDecryWithkey(key, row.bits, zeroIV, std::nullopt), block);
    }
    EXPECT_TRUE(log.lines().empty());
}

TEST(EncryptCommon, AesRefusalsGiveNothingWithTheirLine) {
    const std::string noContent = "]=>content text can not be nil", badLength = "]=>only 128 256 key length support";
    // Byte counts of key, content (0: absent) and IV; the line's end, or nothing when refused silently.
    const struct { bool decrypt; std::int64_t bits; std::size_t key, content; std::optional<std::size_t> iv;
                   std::string line; } rows[] = {
        {false, 192, 32, 0, 16, "113" + noContent}, {false, 192, 32, 16, 16, "117" + badLength},
        {true, 7, 32, 0, {}, "151" + noContent}, {true, 129, 32, 16, 16, "155" + badLength},
        {false, 256, 31, 16, 16, "]=>key is shorter than key length"},
        {true, 128, 16, 16, 8, "]=>iv vector is shorter than 16 bytes"},
        {false, 128, 0, 16, 16, ""}, {true, 128, 16, 32, 16, ""}, {true, 256, 32, 31, {}, ""}};
    for (const auto& row : rows) {
        krcommon::test::LogCapture log;
        const Bytes key(row.key, 0x11), data(row.content, 0x22), iv(row.iv.value_or(0), 0x33);
        const auto present = [](const Bytes& b, bool is) { return is ? EncryptCommon::Bytes(b) : std::nullopt; };
        const auto k = present(key, row.key > 0), c = present(data, row.content > 0), v = present(iv, !!row.iv);
        EXPECT_FALSE(row.decrypt ? EncryptCommon::AESDecryWithkey(k, row.bits, c, v)
                                 : EncryptCommon::AESEncryWithkey(k, row.bits, c, v)) << row.line;
        EXPECT_EQ(log.lines().size(), row.line.empty() ? 0u : 1u) << row.line;
        EXPECT_EQ(log.count("[KRSDK-Common-ERROR-EncryptCommon-"), log.count(row.line)) << row.line;
    }
}

}  // namespace

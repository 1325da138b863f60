#include <krcommon/util/EncryptCommon.h>

#include "platform/security/OpenSSLTool.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using krcommon::EncryptCommon;
using krcommon::test::LogCapture;
using krcommon::test::OpenSSLTool;
using Bytes = std::vector<std::uint8_t>;

namespace {

Bytes bytesOf(std::string_view text) { return Bytes(text.begin(), text.end()); }

// ---- digests -------------------------------------------------------------

struct DigestRow {
    const char* name;
    bool sha1;
    std::string input;
    const char* hex;
};

class EncryptCommonDigest : public ::testing::TestWithParam<DigestRow> {};

TEST_P(EncryptCommonDigest, MatchesPublishedVectors) {
    const auto& row = GetParam();
    EXPECT_EQ(row.sha1 ? EncryptCommon::sha1Str(row.input) : EncryptCommon::md5Str(row.input), row.hex);
}

INSTANTIATE_TEST_SUITE_P(
    Rfc1321AndFips180, EncryptCommonDigest,
    ::testing::Values(
        DigestRow{"Md5Empty", false, "", "d41d8cd98f00b204e9800998ecf8427e"},
        DigestRow{"Md5A", false, "a", "0cc175b9c0f1b6a831c399e269772661"},
        DigestRow{"Md5Abc", false, "abc", "900150983cd24fb0d6963f7d28e17f72"},
        DigestRow{"Md5MessageDigest", false, "message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
        DigestRow{"Md5Alphabet", false, "abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
        DigestRow{"Md5AlphaNumeric", false, "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
                  "d174ab98d277d9f5a5611c2c9f419d9f"},
        DigestRow{"Md5Digits", false,
                  "12345678901234567890123456789012345678901234567890123456789012345678901234567890",
                  "57edf4a22be3c955ac49da2e2107b67a"},
        DigestRow{"Sha1Empty", true, "", "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
        DigestRow{"Sha1Abc", true, "abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
        DigestRow{"Sha1TwoBlocks", true, "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
                  "84983e441c3bd26ebaae4aa1f95129e5e54670f1"},
        DigestRow{"Sha1MillionA", true, std::string(1000000, 'a'), "34aa973cd4c4daa4f61eeb2bdbad27316534016f"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(EncryptCommon, AbsentTextHashesAsEmpty) {
    EXPECT_EQ(EncryptCommon::md5Str(std::nullopt), "d41d8cd98f00b204e9800998ecf8427e");
    EXPECT_EQ(EncryptCommon::sha1Str(std::nullopt), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
}

TEST(EncryptCommon, DigestsAgreeWithTheOpenSSLTool) {
    ASSERT_TRUE(OpenSSLTool::available());
    OpenSSLTool tool;
    std::vector<std::string> inputs = {"", "\xe5\xaf\x86\xe7\xa0\x81 password \xf0\x9f\x94\x91",
                                       std::string("nul\0inside", 10)};
    for (const std::size_t size : {55u, 56u, 64u, 65u, 1000u, 70000u}) {
        const Bytes random = OpenSSLTool::randomBytes(size, static_cast<std::uint32_t>(size));
        inputs.emplace_back(random.begin(), random.end());
    }
    for (const auto& input : inputs) {
        EXPECT_EQ(EncryptCommon::md5Str(input), tool.digest("md5", bytesOf(input))) << input.size();
        EXPECT_EQ(EncryptCommon::sha1Str(input), tool.digest("sha1", bytesOf(input))) << input.size();
    }
}

TEST(EncryptCommon, HashFunctionDrivesTheHexLength) {
    // A digest function longer than the built-in ones: every byte shows up in order.
    const auto counting = [](const void*, std::size_t, std::uint8_t* out) {
        for (int i = 0; i < 100; ++i) out[i] = static_cast<std::uint8_t>(i * 3);
    };
    const std::string hex = EncryptCommon::NSStringCCHashFunction(counting, 100, "x");
    ASSERT_EQ(hex.size(), 200u);
    EXPECT_EQ(hex.substr(0, 8), "00030609");
    EXPECT_EQ(hex.substr(196), "2629");  // 98*3 = 294 -> 0x26, 99*3 = 297 -> 0x29
}

// ---- hex -----------------------------------------------------------------

struct HexRow {
    const char* name;
    std::string text;
    Bytes bytes;
};

class EncryptCommonHex : public ::testing::TestWithParam<HexRow> {};

TEST_P(EncryptCommonHex, ReadsPairsLikeStrtol) {
    EXPECT_EQ(EncryptCommon::stringToHexData(GetParam().text), GetParam().bytes);
}

INSTANTIATE_TEST_SUITE_P(
    Pairs, EncryptCommonHex,
    ::testing::Values(
        HexRow{"Empty", "", {}}, HexRow{"OneCharacter", "a", {}},
        HexRow{"OddTrailingCharacterIgnored", "0aFF1", {0x0A, 0xFF}},
        HexRow{"MixedCase", "ABcdEf09", {0xAB, 0xCD, 0xEF, 0x09}}, HexRow{"NotHex", "zz", {0x00}},
        HexRow{"SecondDigitNotHex", "1g", {0x01}}, HexRow{"FirstDigitNotHex", "g1", {0x00}},
        HexRow{"LeadingBlank", " f", {0x0F}}, HexRow{"MinusSign", "-1", {0xFF}}, HexRow{"PlusSign", "+f", {0x0F}},
        HexRow{"PrefixOnly", "0x", {0x00}}, HexRow{"EmbeddedNul", std::string("\0" "5a", 3), {0x00}},
        HexRow{"NulSecond", std::string("a\0", 2), {0x0A}},
        // Characters are UTF-16 units narrowed to a byte: U+0131 reads as '1', U+0141 as 'A'.
        HexRow{"NarrowedUnits", "\xc4\xb1\xc4\xb1\xc5\x81\xc5\x81", {0x11, 0xAA}},
        HexRow{"CountsUnitsNotBytes", "\xc4\xb1\xc4\xb1\xc4\xb1", {0x11}},
        // U+1F600 is two units, D83D DE00, narrowed to '=' and NUL.
        HexRow{"SurrogatePair", "\xf0\x9f\x98\x80" "ab", {0x00, 0xAB}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(EncryptCommon, HexRoundTripsEveryByteValue) {
    Bytes all(256);
    for (int i = 0; i < 256; ++i) all[static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(i);
    const std::string hex = EncryptCommon::dataToHexString(all);
    EXPECT_EQ(hex, OpenSSLTool::hex(all));
    EXPECT_EQ(EncryptCommon::stringToHexData(hex), all);
    std::string upper = hex;
    for (auto& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    EXPECT_EQ(EncryptCommon::stringToHexData(upper), all);
    EXPECT_EQ(EncryptCommon::dataToHexString(Bytes{}), "");
}

// ---- Base64 --------------------------------------------------------------

TEST(EncryptCommon, Base64EncodesTheRfc4648Vectors) {
    const EncryptCommon common;
    const std::pair<const char*, const char*> rows[] = {{"", ""},          {"f", "Zg=="},         {"fo", "Zm8="},
                                                        {"foo", "Zm9v"},   {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="},
                                                        {"foobar", "Zm9vYmFy"}};
    for (const auto& [plain, encoded] : rows) {
        EXPECT_EQ(common.Base64EncodingWithData(bytesOf(plain)), encoded) << plain;
        EXPECT_EQ(EncryptCommon::decodeBase64(encoded), bytesOf(plain)) << encoded;
    }
}

TEST(EncryptCommon, Base64AgreesWithTheOpenSSLToolAndNeverBreaksLines) {
    const EncryptCommon common;
    OpenSSLTool tool;
    for (std::size_t size = 0; size <= 200; size += (size < 8 ? 1 : 37)) {
        const Bytes data = OpenSSLTool::randomBytes(size, static_cast<std::uint32_t>(size) + 100);
        const auto encoded = common.Base64EncodingWithData(data);
        ASSERT_TRUE(encoded.has_value());
        EXPECT_EQ(encoded->size(), (size + 2) / 3 * 4);
        EXPECT_EQ(encoded->find('\n'), std::string::npos);
        const auto reference = tool.run("base64 -A", data);
        ASSERT_TRUE(reference.has_value());
        EXPECT_EQ(*encoded, std::string(reference->begin(), reference->end())) << size;
        EXPECT_EQ(EncryptCommon::decodeBase64(*encoded), data) << size;
    }
    // Decoding takes no line breaks either, even where the length would fit.
    EXPECT_FALSE(EncryptCommon::decodeBase64("Zm9v\nYmF").has_value());
}

TEST(EncryptCommon, Base64OfAbsentDataLogsAndGivesNothing) {
    LogCapture log;
    const EncryptCommon common;
    EXPECT_FALSE(common.Base64EncodingWithData(std::nullopt).has_value());
    EXPECT_EQ(log.lines(), std::vector<std::string>{"[KRSDK-Common-ERROR-EncryptCommon-72]=>base64 data is nil"});
    log.clear();
    EXPECT_EQ(common.Base64EncodingWithData(Bytes{}), std::string());
    EXPECT_TRUE(log.lines().empty());
}

// ---- AES -----------------------------------------------------------------

struct AesToolRow {
    int bits;
    std::size_t size;
    bool withIV;
};

class EncryptCommonAesTool : public ::testing::TestWithParam<AesToolRow> {};

TEST_P(EncryptCommonAesTool, AgreesWithOpenSSLEnc) {
    const auto& row = GetParam();
    OpenSSLTool tool;
    const std::size_t keyBytes = row.bits / 8;
    // Keys and IVs longer than needed: only their leading bytes count.
    const Bytes key = OpenSSLTool::randomBytes(keyBytes + 7, static_cast<std::uint32_t>(row.size) * 3 + 1);
    const Bytes iv = OpenSSLTool::randomBytes(20, static_cast<std::uint32_t>(row.size) * 3 + 2);
    const Bytes plain = OpenSSLTool::randomBytes(row.size, static_cast<std::uint32_t>(row.size) * 3 + 3);
    const Bytes usedKey(key.begin(), key.begin() + static_cast<long>(keyBytes));
    const Bytes usedIV = row.withIV ? Bytes(iv.begin(), iv.begin() + 16) : Bytes(16, 0);
    const EncryptCommon::Bytes ivArg = row.withIV ? EncryptCommon::Bytes(iv) : std::nullopt;

    const auto cipher = EncryptCommon::AESEncryWithkey(key, row.bits, plain, ivArg);
    ASSERT_TRUE(cipher.has_value());
    EXPECT_EQ(cipher->size(), (row.size / 16 + 1) * 16);
    const std::string args = "enc -aes-" + std::to_string(row.bits) + "-cbc -K " + OpenSSLTool::hex(usedKey) +
                             " -iv " + OpenSSLTool::hex(usedIV);
    EXPECT_EQ(*cipher, tool.run(args, plain));
    EXPECT_EQ(tool.run(args + " -d", *cipher), plain);
    EXPECT_EQ(EncryptCommon::AESDecryWithkey(key, row.bits, *cipher, ivArg), plain);
}

INSTANTIATE_TEST_SUITE_P(Sizes, EncryptCommonAesTool,
                         ::testing::Values(AesToolRow{128, 0, false}, AesToolRow{128, 1, true},
                                           AesToolRow{128, 15, false}, AesToolRow{128, 16, false},
                                           AesToolRow{128, 17, true}, AesToolRow{128, 1000, true},
                                           AesToolRow{256, 0, true}, AesToolRow{256, 16, true},
                                           AesToolRow{256, 31, false}, AesToolRow{256, 4099, true}),
                         [](const auto& info) {
                             return "Aes" + std::to_string(info.param.bits) + "_" + std::to_string(info.param.size) +
                                    (info.param.withIV ? "_iv" : "_zeroiv");
                         });

struct RefusalRow {
    const char* name;
    bool decrypt;
    bool withContent;
    std::int64_t bits;
    std::size_t keySize;
    std::optional<std::size_t> ivSize;
    std::string line;  // empty: refused silently
    std::size_t contentSize = 32;
};

class EncryptCommonAesRefusal : public ::testing::TestWithParam<RefusalRow> {};

TEST_P(EncryptCommonAesRefusal, GivesNothingWithItsLogLine) {
    const auto& row = GetParam();
    LogCapture log;
    const Bytes key(row.keySize, 0x11);
    const Bytes content(row.contentSize, 0x22);
    const Bytes iv(row.ivSize.value_or(0), 0x33);
    const EncryptCommon::Bytes keyArg = row.keySize ? EncryptCommon::Bytes(key) : std::nullopt;
    const EncryptCommon::Bytes contentArg = row.withContent ? EncryptCommon::Bytes(content) : std::nullopt;
    const EncryptCommon::Bytes ivArg = row.ivSize ? EncryptCommon::Bytes(iv) : std::nullopt;
    const auto result = row.decrypt ? EncryptCommon::AESDecryWithkey(keyArg, row.bits, contentArg, ivArg)
                                    : EncryptCommon::AESEncryWithkey(keyArg, row.bits, contentArg, ivArg);
    EXPECT_FALSE(result.has_value());
    const auto lines = log.lines();
    if (row.line.empty()) {
        EXPECT_TRUE(lines.empty());
    } else if (row.line.starts_with("[")) {
        EXPECT_EQ(lines, std::vector<std::string>{row.line});
    } else {  // a refusal of this implementation: its own source line
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_TRUE(lines[0].starts_with("[KRSDK-Common-ERROR-EncryptCommon-")) << lines[0];
        EXPECT_TRUE(lines[0].ends_with("]=>" + row.line)) << lines[0];
    }
}

const std::string kEncContent = "[KRSDK-Common-ERROR-EncryptCommon-113]=>content text can not be nil";
const std::string kEncKeyLength = "[KRSDK-Common-ERROR-EncryptCommon-117]=>only 128 256 key length support";
const std::string kDecContent = "[KRSDK-Common-ERROR-EncryptCommon-151]=>content text can not be nil";
const std::string kDecKeyLength = "[KRSDK-Common-ERROR-EncryptCommon-155]=>only 128 256 key length support";

INSTANTIATE_TEST_SUITE_P(
    Checks, EncryptCommonAesRefusal,
    ::testing::Values(
        RefusalRow{"EncNoContent", false, false, 128, 16, 16, kEncContent},
        RefusalRow{"EncNoContentBeforeKeyLength", false, false, 192, 32, 16, kEncContent},
        RefusalRow{"Enc192", false, true, 192, 32, 16, kEncKeyLength},
        RefusalRow{"EncZeroBits", false, true, 0, 32, std::nullopt, kEncKeyLength},
        RefusalRow{"EncNegativeBits", false, true, -128, 32, 16, kEncKeyLength},
        RefusalRow{"EncBytesNotBits", false, true, 16, 32, 16, kEncKeyLength},
        RefusalRow{"Enc512", false, true, 512, 64, 16, kEncKeyLength},
        RefusalRow{"DecNoContent", true, false, 256, 32, std::nullopt, kDecContent},
        RefusalRow{"DecNoContentBeforeKeyLength", true, false, 100, 32, 16, kDecContent},
        RefusalRow{"Dec192", true, true, 192, 32, 16, kDecKeyLength},
        RefusalRow{"Dec129", true, true, 129, 32, 16, kDecKeyLength},
        RefusalRow{"EncShortKey256", false, true, 256, 16, 16, "key is shorter than key length"},
        RefusalRow{"DecShortKey128", true, true, 128, 15, std::nullopt, "key is shorter than key length"},
        RefusalRow{"EncShortIV", false, true, 128, 16, 8, "iv vector is shorter than 16 bytes"},
        RefusalRow{"DecEmptyIV", true, true, 256, 32, 0, "iv vector is shorter than 16 bytes"},
        RefusalRow{"EncAbsentKeySilent", false, true, 128, 0, 16, ""},
        RefusalRow{"DecAbsentKeySilent", true, true, 256, 0, std::nullopt, ""},
        RefusalRow{"DecBadPaddingSilent", true, true, 128, 16, 16, ""},  // 32 bytes of 0x22 do not unpad
        RefusalRow{"DecMisalignedSilent", true, true, 128, 16, std::nullopt, "", 31}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(EncryptCommon, WrongKeyDecryptionFailsSilently) {
    LogCapture log;
    const Bytes key = OpenSSLTool::randomBytes(32, 1);
    const Bytes iv = OpenSSLTool::randomBytes(16, 2);
    const Bytes plain = bytesOf("the account token that must stay secret");
    const auto cipher = EncryptCommon::AESEncryWithkey(key, 256, plain, iv);
    ASSERT_TRUE(cipher.has_value());
    int refused = 0;
    for (std::uint32_t stream = 10; stream < 74; ++stream) {
        const auto result = EncryptCommon::AESDecryWithkey(OpenSSLTool::randomBytes(32, stream), 256, *cipher, iv);
        EXPECT_NE(result, plain);
        refused += result.has_value() ? 0 : 1;
    }
    // A wrong key yields valid-looking padding only by chance (about 1 in 200).
    EXPECT_GE(refused, 60);
    // Same key, wrong key size: a 128-bit reading of the key decrypts to garbage.
    EXPECT_NE(EncryptCommon::AESDecryWithkey(key, 128, *cipher, iv), plain);
    EXPECT_TRUE(log.lines().empty());
}

}  // namespace

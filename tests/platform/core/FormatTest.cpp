#include <krcommon/platform/core/Error.h>
#include <krcommon/platform/core/Format.h>

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstddef>
#include <ostream>

using namespace krcommon::platform;

namespace {

const std::string kPad = std::string(4095, ' ');  // a clamped width of 4096 around one character

struct Row {
    const char* name;
    std::string (*make)();
    std::string expected;
    friend void PrintTo(const Row& r, std::ostream* os) { *os << r.name; }
};

class FormatText : public ::testing::TestWithParam<Row> {};

TEST_P(FormatText, PrintsWhatCsPrintfOrThePlatformPrints) { EXPECT_EQ(GetParam().make(), GetParam().expected); }

const Row kIntegers[] = {
    {"Plain", [] { return format("%d|%i", -17, 4); }, "-17|4"},
    {"Width", [] { return format("%5d|", 42); }, "   42|"},
    {"LeftJustified", [] { return format("%-5d|", 42); }, "42   |"},
    {"ZeroPadded", [] { return format("%05d", -42); }, "-0042"},
    {"MinusBeatsZero", [] { return format("%-05d|", 3); }, "3    |"},
    {"PlusAndSpace", [] { return format("%+d|%+d|% d", 7, 0, 42); }, "+7|+0| 42"},
    {"Precision", [] { return format("%.3d|%5.3d|", 7, -7); }, "007| -007|"},
    {"GroupingFlagIgnored", [] { return format("%'d", 1234567); }, "1234567"},
    {"NoModifierReadsAnInt", [] { return format("%d|%d", 4294967297LL, 4000000000U); }, "1|-294967296"},
    {"Char", [] { return format("%hhd|%hhd|%hhu|%hhx", 300, 200, -1, 0x1ff); }, "44|-56|255|ff"},
    {"Short", [] { return format("%hd|%hu", 70000, -1); }, "4464|65535"},
    {"Long", [] { return format("%ld|%lld|%qd", -1, INT64_MIN, 1LL << 40); }, "-1|-9223372036854775808|1099511627776"},
    {"SizeAndPointerDifference", [] { return format("%zu|%td|%jd", std::size_t{1} << 33, std::ptrdiff_t{-5}, 6); },
     "8589934592|-5|6"},
    {"Unsigned", [] { return format("%u|%lu|%llu", -1, -1, UINT64_MAX); },
     "4294967295|18446744073709551615|18446744073709551615"},
    {"Hex", [] { return format("%x|%X|%#x|%#X|%08x|%lx", 255, 255, 0, 255, 0xbeef, -1); },
     "ff|FF|0|0XFF|0000beef|ffffffffffffffff"},
    {"Octal", [] { return format("%o|%#o", 8, 8); }, "10|010"},
    {"FromReal", [] { return format("%d|%d", 2.9, -2.9); }, "2|-2"},
    {"FromValue", [] { return format("%d|%d|%x", Value(41), Value("text"), Value(true)); }, "41|0|1"},
    {"FromString", [] { return format("%d", "12"); }, "0"},
};

const Row kReals[] = {
    {"Fixed", [] { return format("%f|%.3f|%.0f", 3, 3.14159, 0.5); }, "3.000000|3.142|0"},
    {"WidthAndZeros", [] { return format("%08.3f|%+.1f|%-7.2f|", -3.14159, 2.25, 1.5); }, "-003.142|+2.2|1.50   |"},
    {"Exponent", [] { return format("%10.2e|%E", 12345.678, 0.5); }, "  1.23e+04|5.000000E-01"},
    {"General", [] { return format("%g|%g|%G|%#.3g", 0.0001, 1e-5, 1e20, 1.0); }, "0.0001|1e-05|1E+20|1.00"},
    {"Hexadecimal", [] { return format("%a|%A", 1.0, 0.5); }, "0x1p+0|0X1P-1"},
    {"NonFinite", [] { return format("%f|%F|%5.1f|", INFINITY, -INFINITY, NAN); }, "inf|-INF|  nan|"},
    {"LongDouble", [] { return format("%Lf|%Lg", 1.5L, 2.0L); }, "1.500000|2"},
    {"FromValue", [] { return format("%.1f|%f", Value(2), Value("x")); }, "2.0|0.000000"},
};

const Row kText[] = {
    {"String", [] { return format("%s|%8s|%-8s|", "text", "ab", "ab"); }, "text|      ab|ab      |"},
    {"StringPrecision", [] { return format("%.2s|%.0s|%5.1s|", "abcdef", "abc", "xyz"); }, "ab||    x|"},
    {"NullString", [] { return format("%s|%5s", static_cast<const char*>(nullptr), nullptr); }, "(null)|(null)"},
    {"StdStrings", [] { return format("%s %@", std::string("std"), std::string_view("view")); }, "std view"},
    {"OptionalStrings",
     [] { return format("%@|%@|%s", std::optional<std::string>(), std::optional<std::string>("x"),
                        std::optional<std::string_view>("y")); },
     "(null)|x|y"},
    {"NumbersAsStrings", [] { return format("%s|%s|%s", 12, 2.5, -0.0); }, "12|2.5|-0"},
    {"Character", [] { return format("%c|%3c|%-3c|%C", 'A', 'x', 'y', 'z'); }, "A|  x|y  |z"},
    {"Pointer", [] { return format("%p|%p", static_cast<const void*>(nullptr), reinterpret_cast<const void*>(0x1234)); },
     "0x0|0x1234"},
};

const Row kObjects[] = {
    {"Values", [] { return format("[%@|%@|%@]", Value(), Value("s"), Value(Dictionary{{"a", 1}})); },
     "[(null)|s|{\n    a = 1;\n}]"},
    {"Numbers", [] { return format("%@ %@ %@ %@", 5, 2.5, UINT64_MAX, INT64_MIN); },
     "5 2.5 18446744073709551615 -9223372036854775808"},
    {"Error", [] { return format("%@", Error::make("D", 7)); },
     "Error Domain=D Code=7 \"The operation couldn\xE2\x80\x99t be completed. (D error 7.)\""},
    {"NullObject", [] { return format("%@", std::shared_ptr<Error>()); }, "(null)"},
    {"WidthAndPrecision", [] { return format("%10@|%-6@|%.3@|", Value("ab"), Value(1), Value("abcdef")); },
     "        ab|1     |abc|"},
};

const Row kArguments[] = {
    {"Missing", [] { return format("%@ and %@|%d|%s|%f|%x", "one"); }, "one and (null)|0|(null)|0.000000|0"},
    {"Positional", [] { return format("%2$@-%1$@|%1$@|%3$d", "a", "b"); }, "b-a|a|0"},
    {"WidthFromArgument", [] { return format("%*d|%-*d|", 4, 7, 4, 7); }, "   7|7   |"},
    {"NegativeWidthLeftJustifies", [] { return format("%*d|%-*d|", -4, 7, -4, 7); }, "7   |7   |"},
    {"PrecisionFromArgument", [] { return format("%.*f|%*.*f|%.*s", 1, 2.26, 8, 2, 3.14159, 3, "abcdef"); },
     "2.3|    3.14|abc"},
    {"NegativePrecisionIsNone", [] { return format("%.*f", -1, 2.5); }, "2.500000"},
    {"WrittenWidthClamped", [] { return format("%99999d|", 7); }, kPad + "7|"},
    {"WidthFromArgumentClamped", [] { return format("%*d|", INT_MAX, 7); }, kPad + "7|"},
    {"NegativeWidthFromArgumentClamped", [] { return format("%*s|", INT_MIN, "x"); }, "x" + kPad + "|"},
    {"PrecisionFromArgumentClamped", [] { return format("%.*e", INT_MAX, 0.5); }, format("%.4096e", 0.5)},
};

const Row kFormatText[] = {
    {"NoConversions", [] { return format("plain text"); }, "plain text"},
    {"Empty", [] { return format(""); }, ""},
    {"Percent", [] { return format("100%%|%%d", 5); }, "100%|%d"},
    {"LoneTrailingPercent", [] { return format("tail %"); }, "tail %"},
    {"UnfinishedConversionPrintsNothing", [] { return format("a %5") + format("|b %-.3l", 1); }, "a |b "},
    {"UnknownConversionKeptAndTakesNoArgument", [] { return format("%k %d", 1); }, "%k 1"},
    {"NulIsNoFlagOrModifier", [] { return format(std::string_view("%\0c|", 4), 'x'); }, std::string("%\0c|", 4)},
};

const auto kName = [](const auto& info) { return std::string(info.param.name); };
INSTANTIATE_TEST_SUITE_P(Integers, FormatText, ::testing::ValuesIn(kIntegers), kName);
INSTANTIATE_TEST_SUITE_P(Reals, FormatText, ::testing::ValuesIn(kReals), kName);
INSTANTIATE_TEST_SUITE_P(Text, FormatText, ::testing::ValuesIn(kText), kName);
INSTANTIATE_TEST_SUITE_P(Objects, FormatText, ::testing::ValuesIn(kObjects), kName);
INSTANTIATE_TEST_SUITE_P(Arguments, FormatText, ::testing::ValuesIn(kArguments), kName);
INSTANTIATE_TEST_SUITE_P(FormatString, FormatText, ::testing::ValuesIn(kFormatText), kName);

TEST(Format, FormatToAppendsToWhatTheBufferHolds) {
    fmt::memory_buffer out;
    formatTo(out, "%s=", "a");
    formatTo(out, "%@;", Value(Array{1}));
    formatTo(out, "!");
    EXPECT_EQ(std::string(out.data(), out.size()), "a=(\n    1\n);!");
}

}  // namespace

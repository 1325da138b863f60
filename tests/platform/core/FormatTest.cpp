#include <krcommon/platform/core/Error.h>
#include <krcommon/platform/core/Format.h>

#include <gtest/gtest.h>

#include <climits>
#include <cstdio>

using namespace krcommon::platform;

namespace {

// Conversions whose result must equal the C library's printf for the same arguments.
TEST(Format, CConversionsAgreeWithPrintf) {
    char expected[256];
    auto check = [&](const char* fmt, auto arg) {
        std::snprintf(expected, sizeof expected, fmt, arg);
        EXPECT_EQ(format(fmt, arg), expected) << fmt;
    };
    check("%d", -17);
    check("%5d|", 42);
    check("%-5d|", 42);
    check("%05d", -42);
    check("%+d", 7);
    check("%ld", 1234567890123L);
    check("%lld", -9223372036854775807LL);
    check("%lu", 18446744073709551615UL);
    check("%u", 4000000000U);
    check("%x", 255U);
    check("%#X", 255U);
    check("%o", 8U);
    check("%.3f", 3.14159);
    check("%10.2e", 12345.678);
    check("%g", 0.0001);
    check("%c", 'A');
    check("%s", "text");
    check("%8s|", "ab");
    check("%-8s|", "ab");
    check("%.2s", "abcdef");
    check("%hhd", 300);
}

TEST(Format, ObjectConversionPrintsDescriptions) {
    const Value nil;
    const Value dict(Dictionary{{"a", 1}});
    auto error = Error::make("D", 7);
    EXPECT_EQ(format("[%@]", nil), "[(null)]");
    EXPECT_EQ(format("[%@]", Value("s")), "[s]");
    EXPECT_EQ(format("[%@]", dict), "[{\n    a = 1;\n}]");
    EXPECT_EQ(format("%@", error), error->description());
    EXPECT_EQ(format("%@", std::shared_ptr<Error>()), "(null)");
    EXPECT_EQ(format("%@ %@", 5, 2.5), "5 2.5");
    EXPECT_EQ(format("%@", std::string("str")), "str");
    EXPECT_EQ(format("%@", static_cast<const char*>(nullptr)), "(null)");
    EXPECT_EQ(format("%@", std::optional<std::string>()), "(null)");
    EXPECT_EQ(format("%@", std::optional<std::string>("x")), "x");
    EXPECT_EQ(format("%10@|", Value("ab")), "        ab|");
}

TEST(Format, MissingAndMismatchedArgumentsNeverReadGarbage) {
    struct Row { std::string got; std::string expected; };
    const Row rows[] = {
        {format("%@ and %@", "one"), "one and (null)"},
        {format("%s", 12), "12"},
        {format("%d", "text"), "0"},
        {format("%d", 2.9), "2"},
        {format("%f", 3), "3.000000"},
        {format("%d", Value(41)), "41"},
        {format("100%%"), "100%"},
        {format("tail %"), "tail %"},
        {format("%k", 1), "%k"},
        {format("%2$@-%1$@", "a", "b"), "b-a"},
        {format("%*d|", 4, 7), "   7|"},
        {format("%.*f", 1, 2.26), "2.3"},
        {format("no conversions"), "no conversions"},
        {format("%ld", -1), "-1"},
        {format("%u", -1), "4294967295"},
        {format("%lu", -1), "18446744073709551615"},
        // A NUL is not a flag or length modifier, and flags fmt lacks never fail a line.
        {format(std::string_view("%\0c", 3), 'x'), std::string("%\0c", 3)},
        {format("%'d|%-c|", 1234567, 'y'), "1234567|y|"},
    };
    for (const auto& row : rows) EXPECT_EQ(row.got, row.expected);
}

// A width or precision taken from an argument obeys the limit a written one does, and a
// negative width from an argument left-justifies, as in C.
TEST(Format, ArgumentWidthsAreClampedAndNegativeOnesLeftJustify) {
    EXPECT_EQ(format("%*d|", -4, 7), "7   |");
    EXPECT_EQ(format("%-*d|", -4, 7), "7   |");
    EXPECT_EQ(format("%*d", INT_MAX, 7), format("%9999d", 7));
    EXPECT_EQ(format("%*s|", INT_MIN, "x"), format("%-9999s|", "x"));
    EXPECT_EQ(format("%.*f", INT_MAX, 0.5), format("%.9999f", 0.5));
    EXPECT_EQ(format("%9999d", 7).size(), 4096u);
}

}  // namespace

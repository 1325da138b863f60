#include <krcommon/platform/io/PropertyList.h>

#include <krcommon/platform/io/FileManager.h>

#include "TempFolder.h"

#include <gtest/gtest.h>
#include <plist/plist.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cmath>
#include <locale.h>

using namespace krcommon::platform;
using krcommon::test::TempFolder;

namespace {

// libplist's own binary encoding of a node, which it frees.
std::string toBinary(plist_t root) {
    char* bin = nullptr;
    std::uint32_t length = 0;
    if (root) plist_to_bin(root, &bin, &length);
    std::string out = bin ? std::string(bin, length) : std::string();
    plist_to_bin_free(bin);
    plist_free(root);
    return out;
}

std::string toBinary(const std::string& xml) {
    plist_t root = nullptr;
    plist_from_xml(xml.data(), static_cast<std::uint32_t>(xml.size()), &root);
    return toBinary(root);
}

// A binary property list of `count` arrays, array i holding `fanOut` references
// to array i + 1 and the last one empty, or, with `cycle`, referring to the first.
std::string chainOfArrays(std::size_t count, unsigned fanOut, bool cycle = false) {
    std::string out = "bplist00";
    auto bigEndian = [&](std::uint64_t v, int width) {
        for (int i = width - 1; i >= 0; --i) out.push_back(static_cast<char>(v >> (8 * i)));
    };
    std::vector<std::uint64_t> offsets;
    for (std::size_t i = 0; i < count; ++i) {
        offsets.push_back(out.size());
        const bool last = i + 1 == count;
        const unsigned n = last ? (cycle ? 1 : 0) : fanOut;
        out.push_back(static_cast<char>(0xA0 | n));
        for (unsigned k = 0; k < n; ++k) bigEndian(last ? 0 : i + 1, 4);
    }
    const std::uint64_t table = out.size();
    for (auto offset : offsets) bigEndian(offset, 8);
    out.append(6, '\0');
    out += "\x08\x04";  // offset and reference widths
    bigEndian(count, 8);
    bigEndian(0, 8);
    bigEndian(table, 8);
    return out;
}

std::string repeat(std::string_view piece, std::size_t n, std::string out = "<plist>") {
    for (std::size_t i = 0; i < n; ++i) out.append(piece);
    return out;
}

std::string nestedXML(std::size_t depth) { return repeat("<array>", depth) + repeat("</array>", depth, "") + "</plist>"; }

Value everyKind() {
    return Dictionary{
        {"zeta first", true},
        {"false", false},
        {"integers", Array{INT64_MIN, -1, 0, INT64_MAX}},
        {"reals", Array{0.1, -2.5e-300, 1e300, 3.0}},
        {"strings", Array{"", "a&b<c>\"'", "\xC3\xA9\xE4\xB8\xAD\xF0\x9F\x98\x80", "tab\tline\n"}},
        {"data", Array{Data{}, Data{0, 1, 255}}},
        // 1800, 2100, the first and last seconds the format holds, the two epochs
        {"dates", Array{Date{-5364662400.0}, Date{4102444800.0}, Date{-62135596800.0}, Date{253402300799.0},
                        Date{0}, Date{978307200.0}}},
        {"nested", Dictionary{{"empty array", Array{}}, {"empty dict", Dictionary{}}}},
    };
}

}  // namespace

TEST(PropertyList, RoundTripsThroughXMLAndBinary) {
    for (const Value& value : {everyKind(), Value(Array{everyKind(), 1}), Value("top"), Value(42), Value(Dictionary{})}) {
        const auto xml = PropertyList::writeXML(value);
        ASSERT_TRUE(xml) << value.description();
        EXPECT_EQ(PropertyList::parse(*xml), value) << *xml;
        const std::string bin = toBinary(*xml);
        ASSERT_EQ(bin.substr(0, 8), "bplist00");
        EXPECT_EQ(PropertyList::parse(bin), value) << *xml;
    }
    // Members keep the order they were written in (equality ignores it).
    const auto read = PropertyList::parse(*PropertyList::writeXML(everyKind()));
    EXPECT_EQ(read->dictionary()->keys(), everyKind().dictionary()->keys());
}

// The writer lays lists out exactly as libplist does, so files read back by
// libplist and written again come out byte for byte the same. (Two things
// differ on purpose and are left out here: years below 1000 are written with
// four digits, as ISO 8601 wants, and a negative zero keeps its sign.)
TEST(PropertyList, WritesTheLayoutLibplistWrites) {
    Value nested = Data(200, 0x5A);
    for (int depth = 0; depth < 11; ++depth) nested = Array{Data{1, 2, 3, 4, 5, 6, 7}, nested, Data(97, 0xC3)};
    Value deep = "x&y>";  // deeper than the writer's run of ready-made tabs
    for (int depth = 0; depth < 24; ++depth) deep = Dictionary{{"k<" + std::to_string(depth), deep}, {"n", depth}};
    Value kinds = everyKind();
    kinds.dictionary()->set("dates", Array{Date{-5364662400.0}, Date{253402300799.0}, Date{1700000000.75}});
    for (const Value& value : {kinds, nested, deep, Value(Array{NAN, INFINITY, -INFINITY, 0.0}), Value("top")}) {
        const auto ours = PropertyList::writeXML(value);
        ASSERT_TRUE(ours);
        plist_t node = nullptr;
        plist_from_xml(ours->data(), static_cast<std::uint32_t>(ours->size()), &node);
        ASSERT_NE(node, nullptr) << *ours;
        char* xml = nullptr;
        std::uint32_t length = 0;
        plist_to_xml(node, &xml, &length);
        EXPECT_EQ(*ours, std::string(xml, length));
        plist_to_xml_free(xml);
        plist_free(node);
    }
}

TEST(PropertyList, ReadsEveryDateAndIntegerForm) {
    // Dates count from 1970 here, from 2001 inside binary lists; XML drops the fraction.
    const auto xml = PropertyList::writeXML(Array{Date{0}, Date{978307200.0 + 0.75}});
    ASSERT_TRUE(xml);
    EXPECT_NE(xml->find("<date>1970-01-01T00:00:00Z</date>"), std::string::npos) << *xml;
    EXPECT_NE(xml->find("<date>2001-01-01T00:00:00Z</date>"), std::string::npos) << *xml;
    EXPECT_EQ(PropertyList::parse(toBinary("<plist><date>2001-01-01T00:00:00Z</date></plist>")),
              Value(Date{978307200.0}));
    // Unsigned values past INT64_MAX become reals (equality would not tell the kinds apart).
    const auto read = PropertyList::parse("<plist><array><integer>18446744073709551615</integer><integer>-1</integer>"
                                          "<integer>9223372036854775807</integer></array></plist>");
    ASSERT_TRUE(read);
    EXPECT_EQ(*read, Value(Array{18446744073709551615.0, -1, INT64_MAX}));
    for (std::size_t i : {0, 1, 2})
        EXPECT_EQ((*read->array())[i].kind(), i == 0 ? Value::Kind::Real : Value::Kind::Integer) << i;
    EXPECT_EQ(PropertyList::parse(toBinary(plist_new_uid(7))), Value(Dictionary{{"CF$UID", 7}}));
}

TEST(PropertyList, RejectsWhatIsNotAPropertyList) {
    const std::string rows[] = {"", "   \n", "just text", "{\"json\": 1}", "<plist></plist>",
                                "<plist><dict><key>a</key><string>b</string></dict",
                                "<plist><string>\xC3(</string></plist>",  // not UTF-8
                                "bplist00", "bplist00" + std::string(40, '\0')};
    for (const auto& row : rows) {
        std::shared_ptr<Error> error;
        EXPECT_FALSE(PropertyList::parse(row, &error)) << row;
        ASSERT_TRUE(error) << row;
        EXPECT_EQ(error->domain(), "NSCocoaErrorDomain");
        EXPECT_EQ(error->code(), 3840);
        EXPECT_TRUE(error->userInfo()["NSDebugDescription"].isString());
    }
    // No strict prefix of a binary list reads as one: the trailer sits at the end. Cut XML must not fault.
    const std::string xml = *PropertyList::writeXML(everyKind()), bin = toBinary(xml);
    for (std::size_t n = 0; n < bin.size(); ++n) ASSERT_FALSE(PropertyList::parse(bin.substr(0, n))) << n;
    for (std::size_t n = 0; n < xml.size(); n += 7) PropertyList::parse(xml.substr(0, n));
}

// libplist recurses per level and copies shared objects, so these would exhaust the stack or memory if they reached it.
TEST(PropertyList, BoundsNestingAndExpansion) {
    const std::tuple<const char*, std::string, bool> rows[] = {  // name, bytes, accepted
        {"xml at the limit", nestedXML(512), true}, {"xml one deeper", nestedXML(513), false},
        {"xml very deep", nestedXML(200000), false}, {"xml unclosed", repeat("<dict>", 200000), false},
        {"closings in comments", repeat("<array><!--</array>-->", 100000), false},
        {"comment that only looks closed", repeat("<array><!--></array>-->", 100000), false},
        {"closings in CDATA", repeat("<array><![CDATA[</array>]]>", 100000), false},
        {"self-closing look-alike", repeat("<array a=\"/>\">", 100000), false},
        {"binary at the limit", chainOfArrays(512, 1), true}, {"binary one deeper", chainOfArrays(513, 1), false},
        {"binary very deep", chainOfArrays(200000, 1), false}, {"binary cycle", chainOfArrays(3, 1, true), false},
        {"binary shared 2^40 times", chainOfArrays(40, 2), false}, {"shared moderately", chainOfArrays(10, 2), true},
    };
    for (const auto& [name, bytes, accepted] : rows) {
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(PropertyList::parse(bytes).has_value(), accepted) << name;
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5)) << name;
    }
}

TEST(PropertyList, FilesRoundTripAndWritesRefuseWhatCannotBeRepresented) {
    TempFolder tmp;
    ASSERT_TRUE(PropertyList::writeFile(tmp / "a.plist", everyKind(), true));
    EXPECT_EQ(PropertyList::readFile(tmp / "a.plist"), everyKind());
    std::shared_ptr<Error> error;
    EXPECT_FALSE(PropertyList::readFile(tmp / "missing.plist", &error));
    EXPECT_EQ(error->domain(), "NSPOSIXErrorDomain");
    EXPECT_EQ(error->code(), ENOENT);

    Value tooDeep = Array{};
    for (int i = 0; i < 512; ++i) tooDeep = Array{tooDeep};  // 513 levels
    const Value rows[] = {Value(), Array{1, Null{}}, Dictionary{{"e", Error::make("D", 1)}},
                          Array{std::string("a\0b", 3)}, Dictionary{{std::string("a\0b", 3), 1}}, Array{"\xFF"},
                          Array{Date{253402300800.0}}, Array{Date{-62135596801.0}},  // years 10000 and 0
                          Array{Date{std::nan("")}}, tooDeep};
    for (const auto& row : rows) {
        error.reset();
        EXPECT_FALSE(PropertyList::writeXML(row, &error)) << row.description();
        ASSERT_TRUE(error) << row.description();
        EXPECT_EQ(error->code(), 3851) << row.description();
    }
    EXPECT_FALSE(PropertyList::writeFile(tmp / "c.plist", Array{Value()}, true, &error));
    EXPECT_EQ(error->code(), 3851);
    EXPECT_FALSE(FileManager::fileExistsAtPath(tmp / "c.plist"));
}

// Appending to a written array gives exactly what writing the longer array
// gives, whatever the items and whether the array was empty.
TEST(PropertyList, AppendingToAWrittenArrayWritesTheLongerArray) {
    Value deep = "d&";
    for (int depth = 0; depth < 20; ++depth) deep = Array{deep, depth};  // past the ready-made run of tabs
    const Array heads[] = {{}, {1}, {everyKind(), "x<y"}, {Array{}, Dictionary{}}};
    const Array tails[] = {{}, {"one"}, {everyKind(), deep, Data(120, 0x41), Array{}, Dictionary{}}, {Array{Array{}}}};
    for (const Array& head : heads) {
        for (const Array& tail : tails) {
            Array whole = head;
            whole.insert(whole.end(), tail.begin(), tail.end());
            const auto appended = PropertyList::appendToXMLArray(*PropertyList::writeXML(head), tail);
            ASSERT_TRUE(appended) << Value(whole).description();
            EXPECT_EQ(*appended, *PropertyList::writeXML(whole)) << Value(whole).description();
        }
    }

    // Not an array list as the writer ends one: a dictionary, a bare value, an
    // array nested in a dictionary, text cut short.
    const std::string list = *PropertyList::writeXML(Array{1, 2});
    const std::string notArrays[] = {*PropertyList::writeXML(Dictionary{{"a", Array{1}}}),
                                     *PropertyList::writeXML(Value("</array>")), list.substr(0, list.size() - 1), ""};
    for (const std::string& document : notArrays) {
        std::shared_ptr<Error> error;
        EXPECT_FALSE(PropertyList::appendToXMLArray(document, Array{3}, &error)) << document;
        ASSERT_TRUE(error);
        EXPECT_EQ(error->code(), 3851);
    }
    // An item that cannot be written refuses the whole, as writing would.
    std::shared_ptr<Error> error;
    EXPECT_FALSE(PropertyList::appendToXMLArray(list, Array{3, Value()}, &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), 3851);
}

// A host that adopts a locale writing "0,5" must still read and write "0.5".
TEST(PropertyList, RealsIgnoreTheNumericLocale) {
    locale_t comma = nullptr;
    for (const char* name : {"de_DE.UTF-8", "de_DE.utf8", "fr_FR.UTF-8", "fr_FR.utf8"})
        if ((comma = ::newlocale(LC_ALL_MASK, name, static_cast<locale_t>(nullptr)))) break;
    if (!comma) GTEST_SKIP() << "no locale with a decimal comma installed";
    const locale_t previous = ::uselocale(comma);
    const auto read = PropertyList::parse(std::string("<plist><array><real>0.25</real></array></plist>"));
    const auto written = PropertyList::writeXML(Array{0.5});
    ::uselocale(previous);
    ::freelocale(comma);
    EXPECT_EQ(read, Value(Array{0.25}));
    ASSERT_TRUE(written);
    EXPECT_NE(written->find("<real>0.5</real>"), std::string::npos) << *written;
}

#include <krcommon/platform/io/PropertyList.h>

#include <krcommon/platform/io/FileManager.h>

#include "TempFolder.h"

#include <gtest/gtest.h>
#include <plist/plist.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <locale.h>

using namespace krcommon::platform;
using krcommon::test::TempFolder;

namespace {

// A checked-in file of tests/data/platform/io.
std::string fixture(const std::string& name) {
    const auto bytes = FileManager::contentsAtPath(krcommon::test::dataPath("platform/io/" + name));
    return bytes ? std::string(bytes->begin(), bytes->end()) : std::string();
}

// libplist's own binary encoding of an XML list.
std::string toBinary(const std::string& xml) {
    plist_t root = nullptr;
    plist_from_xml(xml.data(), static_cast<std::uint32_t>(xml.size()), &root);
    char* bin = nullptr;
    std::uint32_t length = 0;
    if (root) plist_to_bin(root, &bin, &length);
    std::string out = bin ? std::string(bin, length) : std::string();
    plist_to_bin_free(bin);
    plist_free(root);
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

void expectError(const std::shared_ptr<Error>& error, std::int64_t code, const std::string& what) {
    ASSERT_TRUE(error) << what;
    EXPECT_EQ(error->domain(), "NSCocoaErrorDomain") << what;
    EXPECT_EQ(error->code(), code) << what;
    EXPECT_TRUE(error->userInfo()["NSDebugDescription"].isString()) << what;
}

}  // namespace

// The writer lays lists out exactly as libplist does, so files read back by libplist and written
// again come out byte for byte the same: deep nesting, long data, escapes, every kind of real.
TEST(PropertyList, WritesTheLayoutLibplistWrites) {
    Value nested = Data(200, 0x5A);
    for (int depth = 0; depth < 11; ++depth) nested = Array{Data{1, 2, 3, 4, 5, 6, 7}, nested, Data(97, 0xC3)};
    Value deep = "x&y>";  // deeper than the writer's run of ready-made tabs
    for (int depth = 0; depth < 24; ++depth) deep = Dictionary{{"k<" + std::to_string(depth), deep}, {"n", depth}};
    Value kinds = everyKind();
    kinds.dictionary()->set("dates", Array{Date{-5364662400.0}, Date{253402300799.0}, Date{1700000000.75}});
    const auto written = PropertyList::writeXML(Array{kinds, nested, deep, Array{NAN, INFINITY, -INFINITY, 0.0}, "top"});
    ASSERT_TRUE(written);
    EXPECT_EQ(*written, fixture("layout.plist"));
}

// Unsigned values past INT64_MAX become reals (equality would not tell the kinds apart).
TEST(PropertyList, ReadsIntegersPastTheSignedRangeAsReals) {
    const auto read = PropertyList::parse("<plist><array><integer>18446744073709551615</integer><integer>-1</integer>"
                                          "<integer>9223372036854775807</integer></array></plist>");
    ASSERT_TRUE(read);
    EXPECT_EQ(*read, Value(Array{18446744073709551615.0, -1, INT64_MAX}));
    for (std::size_t i : {0, 1, 2})
        EXPECT_EQ((*read->array())[i].kind(), i == 0 ? Value::Kind::Real : Value::Kind::Integer) << i;
}

// Not a list, cut short, nested too deep or expanding without end: an error, never a fault. libplist
// recurses per level and copies shared objects, so the deep and shared ones must not reach it.
TEST(PropertyList, RejectsWhatIsNotABoundedPropertyList) {
    const std::pair<std::string, bool> rows[] = {  // bytes, accepted
        {"", false}, {"   \n", false}, {"just text", false}, {"{\"json\": 1}", false}, {"<plist></plist>", false},
        {"<plist><dict><key>a</key><string>b</string></dict", false},
        {"<plist><string>\xC3(</string></plist>", false}, {"bplist00", false}, {"bplist00" + std::string(40, '\0'), false},
        {std::string("<plist><string>a") + '\0' + "b</string></plist>", false},  // libplist would stop at the NUL
        {nestedXML(512), true}, {nestedXML(513), false}, {nestedXML(200000), false}, {repeat("<dict>", 200000), false},
        {repeat("<array><!--</array>-->", 100000), false}, {repeat("<array><!--></array>-->", 100000), false},
        {repeat("<array><![CDATA[</array>]]>", 100000), false}, {repeat("<array a=\"/>\">", 100000), false},
        {fixture("depth-512.bplist"), true}, {fixture("depth-513.bplist"), false}, {fixture("cycle.bplist"), false},
        {fixture("shared-2-to-the-10.bplist"), true}, {fixture("shared-2-to-the-40.bplist"), false},
        {fixture("utf16-key.bplist"), true}, {fixture("utf16-key-with-nul.bplist"), false},
        {repeat("<array />", 600, "<plist><array>") + "</array></plist>", true},  // empty lists nest nothing
    };
    for (const auto& [bytes, accepted] : rows) {
        std::shared_ptr<Error> error;
        EXPECT_EQ(PropertyList::parse(bytes, &error).has_value(), accepted) << bytes.substr(0, 40);
        if (!accepted) expectError(error, 3840, bytes.substr(0, 40));
    }
    // No strict prefix of a binary list reads as one: the trailer sits at the end. Cut XML must not fault.
    const std::string xml = *PropertyList::writeXML(everyKind()), bin = toBinary(xml);
    for (std::size_t n = 0; n < bin.size(); ++n) ASSERT_FALSE(PropertyList::parse(bin.substr(0, n))) << n;
    for (std::size_t n = 0; n < xml.size(); n += 7) PropertyList::parse(xml.substr(0, n));
}

// Every kind comes back from a file and from libplist's binary form, members in their order.
TEST(PropertyList, RoundTripsThroughFilesAndBinaryAndRefusesWhatCannotBeWritten) {
    TempFolder tmp;
    ASSERT_TRUE(PropertyList::writeFile(tmp / "a.plist", everyKind(), true));
    const auto read = PropertyList::readFile(tmp / "a.plist");
    EXPECT_EQ(read, everyKind());
    EXPECT_EQ(read->dictionary()->keys(), everyKind().dictionary()->keys());  // equality alone ignores the order
    const Value pair = Array{everyKind(), "top"};
    EXPECT_EQ(PropertyList::parse(toBinary(*PropertyList::writeXML(pair))), pair);
    std::shared_ptr<Error> error;
    EXPECT_FALSE(PropertyList::readFile(tmp / "missing.plist", &error));
    EXPECT_EQ(error->domain(), "NSPOSIXErrorDomain");
    EXPECT_EQ(error->code(), ENOENT);

    Value tooDeep = Array{};
    for (int i = 0; i < 512; ++i) tooDeep = Array{tooDeep};  // 513 levels
    const Value rows[] = {Value(), Array{1, Null{}}, Dictionary{{"e", Error::make("D", 1)}},
                          Array{std::string("a\0b", 3)}, Dictionary{{std::string("a\0b", 3), 1}}, Array{"a\x80"},
                          Array{"\xF4\x90\x80\x80"},  // past U+10FFFF
                          Array{Date{253402300800.0}}, Array{Date{-62135596801.0}},  // years 10000 and 0
                          Array{Date{std::nan("")}}, tooDeep};
    for (const auto& row : rows) {
        error.reset();
        EXPECT_FALSE(PropertyList::writeXML(row, &error)) << row.description();
        expectError(error, 3851, row.description());
    }
    EXPECT_FALSE(PropertyList::writeFile(tmp / "c.plist", Array{Value()}, true, &error));
    EXPECT_EQ(error->code(), 3851);
    EXPECT_FALSE(FileManager::fileExistsAtPath(tmp / "c.plist"));
}

// Appending to a written array gives exactly what writing the longer array gives, whatever the
// items and whether the array was empty; what is not an array as the writer ends one is refused.
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
    const std::string list = *PropertyList::writeXML(Array{1, 2});
    const std::pair<std::string, Array> refused[] = {
        {*PropertyList::writeXML(Dictionary{{"a", Array{1}}}), Array{3}}, {*PropertyList::writeXML(Value("</array>")), Array{3}},
        {list.substr(0, list.size() - 1), Array{3}}, {"", Array{3}}, {list, Array{3, Value()}}};  // an item it cannot write
    for (const auto& [document, items] : refused) {
        std::shared_ptr<Error> error;
        EXPECT_FALSE(PropertyList::appendToXMLArray(document, items, &error)) << document;
        expectError(error, 3851, document);
    }
}

// A host that adopts a locale writing "0,5" must still read and write "0.5".
TEST(PropertyList, RealsIgnoreTheNumericLocale) {
    const locale_t comma = ::newlocale(LC_ALL_MASK, "de_DE.UTF-8", static_cast<locale_t>(nullptr));
    if (!comma) GTEST_SKIP() << "no German locale installed";
    const locale_t previous = ::uselocale(comma);
    const auto read = PropertyList::parse(std::string("<plist><array><real>0.25</real></array></plist>"));
    const auto written = PropertyList::writeXML(Array{0.5});
    ::uselocale(previous);
    ::freelocale(comma);
    EXPECT_EQ(read, Value(Array{0.25}));
    EXPECT_NE(written.value_or("").find("<real>0.5</real>"), std::string::npos);
}

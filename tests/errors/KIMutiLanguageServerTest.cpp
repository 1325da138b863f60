// Server answers, error codes and platform errors made one message, with the host tables of tests/data/errors.
#include <krcommon/errors/KIMutiLanguageServer.h>

#include "support/LogCapture.h"

#include <gtest/gtest.h>

using krcommon::KIMutiLanguageServer;
using namespace krcommon::platform;

namespace {

class KIMutiLanguageServerTest : public ::testing::Test {
protected:
    KIMutiLanguageServerTest() { Bundle::setPreferredLanguages({"en"}); }
    ~KIMutiLanguageServerTest() override {
        KIMutiLanguageServer::share().configi18nWithBundle(nullptr, std::nullopt, std::nullopt);
        Bundle::setPreferredLanguages({});
    }
    static void configure(const char* table) {
        KIMutiLanguageServer::share().configi18nWithBundle(bundle(), table, "en");
    }
    static std::shared_ptr<Bundle> bundle() {
        return Bundle::bundleWithPath(std::string(KRCOMMON_SOURCE_RESOURCES) + "/../../../tests/data/errors");
    }
};

TEST_F(KIMutiLanguageServerTest, PreferTheServerThenLocalTextsThenTheLastResort) {
    const std::string last = "sdk unknow error";
    const auto error = [](const char* text) { return Error::make("d", 1, {{"NSLocalizedDescription", text}}); };
    const auto e = error("E");
    const Dictionary grant{{"error", "invalid_grant"}, {"error_description", "T"}};
    const struct { const char* name; const char* table; Value answer; std::int64_t code; std::shared_ptr<Error> error;
                   std::string byCode, byError; } rows[] = {
        // Before configuration no local text exists.
        {"ServerDescription", nullptr, grant, 600, e, "T", "T"},
        {"EmptyAnswer", nullptr, Dictionary{}, 600, nullptr, last, last},
        {"OnlyNulls", nullptr, Dictionary{{"error", Null{}}, {"error_description", Null{}}, {"errorDesc", Null{}}}, 600,
         nullptr, last, last},
        {"NoAnswer", nullptr, Value(), 600, e, last, "E"},
        {"ErrorDesc", nullptr, Dictionary{{"errorDesc", "D"}}, 600, nullptr, "D", last},
        {"LocalTextOfServerKey", "KRErrors", grant, 600, e, "G", "G"},
        {"TextEqualToItsKey", "KRErrors", Dictionary{{"error", "self"}}, 600, e, "P", "E"},
        {"EmptyLocalText", "KRErrors", Dictionary{{"error", "blank"}}, 600, e, "P", "E"},
        {"NumericServerKey", "KRErrors", Dictionary{{"error", 600}}, 0, e, "six hundred", "six hundred"},
        // "errorDesc" only for the code, even when empty; other kinds of value are printed.
        {"ErrorDescAfterEmptyDescription", "KRErrors", Dictionary{{"error_description", ""}, {"errorDesc", "D"}}, 600,
         e, "D", "E"},
        {"EmptyErrorDescSkipsTheCode", "KRErrors", Dictionary{{"errorDesc", ""}}, 600, e, "U", "E"},
        // A JSON null is an absent value: the chain goes on.
        {"NullErrorDesc", "KRErrors", Dictionary{{"errorDesc", Null{}}}, 600, e, "P", "E"},
        {"NullServerTexts", "KRErrors", Dictionary{{"error", Null{}}, {"error_description", Null{}}, {"errorDesc", "D"}},
         600, e, "D", "E"},
        {"CodeAfterEmptyDescription", "KRErrors", Dictionary{{"error_description", ""}}, 600, e, "P", "E"},
        {"NumericDescription", "KRErrors", Dictionary{{"error_description", 12}}, 600, e, "12", "12"},
        // Then the catch-all text, then the literal; an empty description is answered as it is.
        {"UnmappedCode", "KRErrors", Dictionary{}, 999, nullptr, "U", "U"},
        {"UnmappedCodeNoCatchAll", "KRErrorsNoCatchAll", Dictionary{}, 999, nullptr, last, last},
        {"MappedCodeWithoutText", "KRErrors", Value(), 0, nullptr, "U", "U"},
        {"ParseCode", "KRErrors", Value(), -10, nullptr, "parse", "U"},
        {"SignInCode", "KRErrors", Value(), 102, nullptr, "wx cancel", "U"},
        {"BindingCode", "KRErrors", Value(), 3003, nullptr, "qq bind network", "U"},
        {"NotADictionary", "KRErrors", Value("plain"), 600, e, "P", "E"},
        {"NotADictionaryNoCatchAll", "KRErrorsNoCatchAll", Value(5), 999, nullptr, last, last},
        {"EmptyErrorDescription", "KRErrors", Dictionary{{"errorDesc", "D"}}, 600, error(""), "D", ""}};
    for (const auto& row : rows) {
        if (row.table) configure(row.table);
        EXPECT_EQ(KIMutiLanguageServer::errorCode(row.answer, row.code), row.byCode) << row.name;
        EXPECT_EQ(KIMutiLanguageServer::httpError(row.answer, row.error), row.byError) << row.name;
    }
}

TEST_F(KIMutiLanguageServerTest, WritesItsLinesStraightToTheSystemLog) {
    krcommon::test::LogCapture capture;
    auto& server = KIMutiLanguageServer::share();
    EXPECT_EQ(server.localizeWithKey(Value("invalid_grant")), std::nullopt);  // no bundle: no lookup, no line
    server.configi18nWithBundle(bundle(), "KRErrors", "zh-Hans");
    EXPECT_EQ(server.language(), "zh-Hans");  // recorded only: the bundle's language governs
    EXPECT_EQ(server.localizeWithKey(Value()), std::nullopt);
    EXPECT_EQ(server.localizeWithKey(Value("invalid_grant")), "G");
    EXPECT_EQ(KIMutiLanguageServer::errorCode(Value(Dictionary{{"error", "nope"}}), 999), "U");
    EXPECT_EQ(capture.lines(), (std::vector<std::string>{
                                   "[i18n][currentbundle]=NSBundle <" + bundle()->bundlePath() +
                                       "> (loaded) [table]=KRErrors [language]=zh-Hans",
                                   "[i18n][localizeValue] = G [key] = invalid_grant",
                                   "[i18n][localizeValue] = (null) [key] = nope",
                                   "[i18n][localizeValue] = U [key] = unknow_error"}));
}

}  // namespace

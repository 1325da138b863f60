#include <krcommon/errors/KIMutiLanguageServer.h>

#include "platform/app/BundleTestSupport.h"
#include "platform/io/TempFolder.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>

using krcommon::KIMutiLanguageServer;
using krcommon::platform::Bundle;
using krcommon::platform::Dictionary;
using krcommon::platform::Error;
using krcommon::platform::Null;
using krcommon::platform::Value;
using krcommon::test::Entries;
using krcommon::test::LogCapture;
using krcommon::test::TableForm;
using krcommon::test::TempFolder;

namespace {

// The map from codes to message keys, as the host's tables are keyed.
const std::pair<std::int64_t, const char*> kErrorMap[] = {
    {0, "success"}, {-10, "data_not_parse"}, {-11, "network_error"},
    {101, "wx_auth_denied"}, {102, "wx_user_cancel"}, {103, "wx_unknow_error"},
    {104, "parser_json_error"}, {105, "network_error_not_200"},
    {111, "wb_auth_denied"}, {112, "wb_user_cancel"}, {113, "wb_unknow_error"},
    {181, "qq_login_usercancel"}, {182, "qq_login_fail"}, {183, "qq_login_network_fail"},
    {200, "operation_success"},
    {401, "bind_order_invalid"}, {403, "bind_order_param_error"}, {404, "unbind_notfound"}, {407, "unbind_refuse"},
    {501, "bind_database_param_error"}, {600, "param_error"}, {602, "bind_alreadybind"}, {603, "bind_nobind"},
    {1001, "bind_wx_auth_denied"}, {1002, "bind_wx_user_cancel"}, {1003, "bind_wx_unknow_error"},
    {2001, "bind_wb_auth_denied"}, {2002, "bind_wb_user_cancel"}, {2003, "bind_wb_unknow_error"},
    {3001, "bind_qq_login_usercancel"}, {3002, "bind_qq_login_fail"}, {3003, "bind_qq_login_network_fail"},
    {-5000, "unknow_error"},
};

// Each test configures the shared instance as it needs and leaves it bare.
class KIMutiLanguageServerTest : public ::testing::Test {
protected:
    KIMutiLanguageServerTest() { Bundle::setPreferredLanguages({"en"}); }
    ~KIMutiLanguageServerTest() override {
        auto& server = KIMutiLanguageServer::share();
        server.setCurrentBundle(nullptr);
        server.setTable(std::nullopt);
        server.setLanguage(std::nullopt);
        server.initialErrorMap();
        Bundle::setPreferredLanguages({});
    }

    std::shared_ptr<Bundle> bundleWith(const Entries& entries, TableForm form = TableForm::UTF8Text,
                                       const char* localization = "en") {
        folders_.emplace_back(std::make_unique<TempFolder>());
        krcommon::test::writeTable(folders_.back()->path(), localization, "KRErrors", entries, form);
        return Bundle::bundleWithPath(folders_.back()->path());
    }

    void configure(const Entries& entries) {
        KIMutiLanguageServer::share().configi18nWithBundle(bundleWith(entries), "KRErrors", "en");
    }

private:
    std::vector<std::unique_ptr<TempFolder>> folders_;
};

TEST_F(KIMutiLanguageServerTest, EveryCodeReachesTheTextOfItsKey) {
    Entries entries;
    for (const auto& [code, key] : kErrorMap) entries.emplace_back(std::string("kr_") + key, "text " + std::to_string(code));
    configure(entries);
    auto& server = KIMutiLanguageServer::share();
    EXPECT_EQ(server.errormap().size(), std::size(kErrorMap));
    for (const auto& [code, key] : kErrorMap) {
        EXPECT_EQ(server.errormap().at(code), key);
        EXPECT_EQ(server.localizeWithKey(Value(), code), "text " + std::to_string(code)) << key;
    }
    EXPECT_EQ(server.localizeWithKey(Value(), 999), std::nullopt) << "a code outside the map";
    EXPECT_EQ(krcommon::UNKNOWNERROR, -5000);

    KIMutiLanguageServer bare;
    EXPECT_TRUE(bare.errormap().empty()) << "the map is built by initialErrorMap, which share calls";
    bare.setErrormap({{7, "param_error"}});
    bare.configi18nWithBundle(server.currentBundle(), "KRErrors", std::nullopt);
    EXPECT_EQ(bare.localizeWithKey(Value(), 7), "text 600");
    bare.initialErrorMap();
    EXPECT_EQ(bare.errormap(), server.errormap());
}

class KIMutiLanguageServerForms : public KIMutiLanguageServerTest, public ::testing::WithParamInterface<TableForm> {};

TEST_P(KIMutiLanguageServerForms, ReadsTheHostsTableInEachShippedFormAndLanguage) {
    TempFolder folder;
    krcommon::test::writeTable(folder.path(), "en", "KRErrors", {{"kr_param_error", "Parameter error"}}, GetParam());
    krcommon::test::writeTable(folder.path(), "zh-Hans", "KRErrors",
                               {{"kr_param_error", "参数错误"}, {"kr_invalid_grant", "登录已过期\n请重新登录"}},
                               GetParam());
    auto& server = KIMutiLanguageServer::share();
    // The language given here is only recorded: the bundle's choice governs.
    server.configi18nWithBundle(Bundle::bundleWithPath(folder.path()), "KRErrors", "en");
    Bundle::setPreferredLanguages({"zh_CN.UTF-8"});
    EXPECT_EQ(server.localizeWithKey(Value("param_error")), "参数错误");
    EXPECT_EQ(server.localizeWithKey(Value("invalid_grant")), "登录已过期\n请重新登录");
    Bundle::setPreferredLanguages({"en_US"});
    EXPECT_EQ(server.localizeWithKey(Value("param_error")), "Parameter error");
    EXPECT_EQ(server.localizeWithKey(Value("invalid_grant")), std::nullopt) << "no fallback to another language";
    EXPECT_EQ(KIMutiLanguageServer::errorCode(Value(), 600), "Parameter error");
}

INSTANTIATE_TEST_SUITE_P(Forms, KIMutiLanguageServerForms,
                         ::testing::Values(TableForm::UTF8Text, TableForm::UTF16LEText, TableForm::UTF16BEText,
                                           TableForm::XMLPlist, TableForm::BinaryPlist),
                         [](const auto& info) { return krcommon::test::tableFormName(info.param); });

enum class Table { None, Full, NoCatchAll };

// The host tables of the chain tests.
const Entries kFull{{"kr_param_error", "P"}, {"kr_unknow_error", "U"}, {"kr_invalid_grant", "G"},
                    {"kr_self", "kr_self"}, {"kr_blank", ""}, {"kr_600", "six hundred"}};
const Entries kNoCatchAll{{"kr_param_error", "P"}, {"kr_invalid_grant", "G"}};

std::shared_ptr<Error> errorWith(std::optional<std::string> description) {
    Dictionary info;
    if (description) info.set("NSLocalizedDescription", *description);
    return Error::make("NSURLErrorDomain", -1001, std::move(info));
}

struct ChainRow {
    const char* name;
    Table table;
    Value answer;
    std::int64_t code;                    // for errorCode
    std::shared_ptr<Error> error;         // for httpError
    std::string byCode, byError;          // the two variants' answers
    friend void PrintTo(const ChainRow& r, std::ostream* os) { *os << r.name; }
};

class KIMutiLanguageServerChains : public KIMutiLanguageServerTest, public ::testing::WithParamInterface<ChainRow> {};

TEST_P(KIMutiLanguageServerChains, PreferTheServerThenLocalTextsThenTheLastResort) {
    const auto& row = GetParam();
    if (row.table == Table::Full) configure(kFull);
    if (row.table == Table::NoCatchAll) configure(kNoCatchAll);
    EXPECT_EQ(KIMutiLanguageServer::errorCode(row.answer, row.code), row.byCode);
    EXPECT_EQ(KIMutiLanguageServer::httpError(row.answer, row.error), row.byError);
}

const auto kE = errorWith("E");
const Dictionary kGrant{{"error", "invalid_grant"}, {"error_description", "T"}};

INSTANTIATE_TEST_SUITE_P(
    Rows, KIMutiLanguageServerChains,
    ::testing::Values(
        // Before configuration no local text exists.
        ChainRow{"UnconfiguredServerDescription", Table::None, Value(kGrant), 600, kE, "T", "T"},
        ChainRow{"UnconfiguredEmptyAnswer", Table::None, Value(Dictionary{}), 600, nullptr, "sdk unknow error",
                 "sdk unknow error"},
        ChainRow{"UnconfiguredNoAnswer", Table::None, Value(), 600, kE, "sdk unknow error", "E"},
        ChainRow{"UnconfiguredErrorDesc", Table::None, Value(Dictionary{{"errorDesc", "D"}}), 600, nullptr, "D",
                 "sdk unknow error"},
        // The local text of the server's key comes first.
        ChainRow{"LocalTextOfServerKey", Table::Full, Value(kGrant), 600, kE, "G", "G"},
        ChainRow{"UntranslatedServerKey", Table::Full,
                 Value(Dictionary{{"error", "unmapped"}, {"error_description", "T"}}), 600, kE, "T", "T"},
        ChainRow{"TextEqualToItsKeyCountsAsMissing", Table::Full, Value(Dictionary{{"error", "self"}}), 600, kE, "P",
                 "E"},
        ChainRow{"EmptyLocalTextFallsThrough", Table::Full, Value(Dictionary{{"error", "blank"}}), 600, kE, "P", "E"},
        ChainRow{"NumericServerKey", Table::Full, Value(Dictionary{{"error", 600}}), 0, kE, "six hundred",
                 "six hundred"},
        // "errorDesc" only in the code variant, even when empty.
        ChainRow{"ErrorDescAfterEmptyDescription", Table::Full,
                 Value(Dictionary{{"error_description", ""}, {"errorDesc", "D"}}), 600, kE, "D", "E"},
        ChainRow{"EmptyErrorDescSkipsTheCode", Table::Full, Value(Dictionary{{"errorDesc", ""}}), 600, kE, "U", "E"},
        // A JSON null is an absent value: the chain goes on.
        ChainRow{"NullErrorDescFallsThrough", Table::Full, Value(Dictionary{{"errorDesc", Null{}}}), 600, kE, "P", "E"},
        ChainRow{"NullServerTextsFallThrough", Table::Full,
                 Value(Dictionary{{"error", Null{}}, {"error_description", Null{}}, {"errorDesc", "D"}}), 600, kE, "D",
                 "E"},
        ChainRow{"OnlyNullsUnconfigured", Table::None,
                 Value(Dictionary{{"error", Null{}}, {"error_description", Null{}}, {"errorDesc", Null{}}}), 600,
                 nullptr, "sdk unknow error", "sdk unknow error"},
        ChainRow{"CodeAfterEmptyDescription", Table::Full, Value(Dictionary{{"error_description", ""}}), 600, kE, "P",
                 "E"},
        ChainRow{"NonStringDescriptionIsPrinted", Table::Full, Value(Dictionary{{"error_description", 12}}), 600, kE,
                 "12", "12"},
        // Then the catch-all text, then the literal.
        ChainRow{"UnmappedCode", Table::Full, Value(Dictionary{}), 999, nullptr, "U", "U"},
        ChainRow{"UnmappedCodeWithoutCatchAll", Table::NoCatchAll, Value(Dictionary{}), 999, nullptr,
                 "sdk unknow error", "sdk unknow error"},
        ChainRow{"MappedCodeWithoutItsText", Table::Full, Value(), 0, nullptr, "U", "U"},
        ChainRow{"NonDictionaryAnswer", Table::Full, Value("plain text"), 600, kE, "P", "E"},
        ChainRow{"NonDictionaryNoError", Table::NoCatchAll, Value(5), 999, nullptr, "sdk unknow error",
                 "sdk unknow error"},
        // An error with an empty description is answered as it is.
        ChainRow{"EmptyErrorDescription", Table::Full, Value(Dictionary{{"errorDesc", "D"}}), 600, errorWith(""), "D",
                 ""},
        ChainRow{"ErrorWithoutDescription", Table::None, Value(), 0, errorWith(std::nullopt), "sdk unknow error",
                 errorWith(std::nullopt)->localizedDescription()}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(KIMutiLanguageServerTest, WritesItsLinesStraightToTheSystemLog) {
    LogCapture capture;
    auto& server = KIMutiLanguageServer::share();
    EXPECT_EQ(server.localizeWithKey(Value("invalid_grant")), std::nullopt);
    EXPECT_TRUE(capture.lines().empty()) << "no bundle yet: nothing is looked up";

    auto bundle = bundleWith(kFull);
    server.configi18nWithBundle(bundle, "KRErrors", "zh-Hans");
    EXPECT_EQ(server.language(), "zh-Hans");
    EXPECT_EQ(server.table(), "KRErrors");
    EXPECT_EQ(server.currentBundle(), bundle);
    EXPECT_EQ(server.localizeWithKey(Value()), std::nullopt);  // no key: no line
    EXPECT_EQ(server.localizeWithKey(Value("invalid_grant")), "G");
    EXPECT_EQ(server.localizeWithKey(Value("nope")), std::nullopt);
    EXPECT_EQ(server.localizeWithKey(Value(600)), "six hundred");
    EXPECT_EQ(KIMutiLanguageServer::errorCode(Value(Dictionary{{"error", "nope"}}), 999), "U");
    server.configi18nWithBundle(nullptr, std::nullopt, std::nullopt);
    EXPECT_EQ(server.localizeWithKey(Value("invalid_grant")), std::nullopt);

    EXPECT_EQ(capture.lines(), (std::vector<std::string>{
                                   "[i18n][currentbundle]=NSBundle <" + bundle->bundlePath() +
                                       "> (loaded) [table]=KRErrors [language]=zh-Hans",
                                   "[i18n][localizeValue] = G [key] = invalid_grant",
                                   "[i18n][localizeValue] = (null) [key] = nope",
                                   "[i18n][localizeValue] = six hundred [key] = 600",
                                   "[i18n][localizeValue] = (null) [key] = nope",
                                   "[i18n][localizeValue] = U [key] = unknow_error",
                                   "[i18n][currentbundle]=(null) [table]=(null) [language]=(null)",
                               }));
}

}  // namespace

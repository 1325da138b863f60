#include <krcommon/config/KIHostService.h>
#include <krcommon/platform/io/FileManager.h>
#include <krcommon/platform/io/JSONSerialization.h>

#include <gtest/gtest.h>

#include <functional>
#include <map>

using krcommon::KIHostService;
using krcommon::platform::Dictionary;
using krcommon::platform::Null;
using krcommon::platform::Value;

namespace {

// The hosts of the deployment file the library was built with.
const Dictionary& deployment() {
    static const Dictionary hosts = [] {
        auto bytes = krcommon::platform::FileManager::contentsAtPath(KRCOMMON_DEPLOYMENT_FILE);
        if (!bytes) throw std::runtime_error("cannot read the deployment file");
        auto json = krcommon::platform::JSONSerialization::parse(*bytes);
        if (!json || !json->isDictionary()) throw std::runtime_error("the deployment file is not a JSON object");
        return *json->dictionary();
    }();
    return hosts;
}

std::string host(const char* key) { return *deployment()[key].string(); }

// Every getter that answers text, by property name.
using Getter = std::function<std::string(const KIHostService&)>;
const std::map<std::string, Getter>& getters() {
#define G(name) {#name, [](const KIHostService& s) { return std::string(s.name()); }}
    static const std::map<std::string, Getter> all{
        G(loginProtocolVersion), G(keepAliveVersion), G(modifyUserInfoProtocolVersion),
        G(getCityListInfoProtocolVersion), G(setAvatarProtocolVersion), G(kr_oauth_md5_salt),
        G(kr_third_bind_version), G(kr_third_login_version), G(thirdProtocolVersion), G(devcieid_regist_version),
        G(devcieid_regis_protocol_version), G(JSAndNativeProtocolVersion), G(UsrAvatarImgTmpName), G(ChangePswSalt),
        G(device_reg_random_key), G(login_main_host), G(login_main_url_noCore), G(login_main_url),
        G(login_master_url), G(login_primary_url), G(provider_token_url), G(singnin_provider_url),
        G(userme_getuserinfo_url), G(refresh_accesstoken_url), G(kr_kruser_ssl_main_url),
        G(kr_kruser_ssl_master_url), G(kr_kruser_ssl_primary_url), G(verify_Code_Server1_url), G(verifyCodeServer2),
        G(verifyCodeServer3), G(modify_userinfo_url), G(recomend_avatar_url), G(kr_oauth_login_url),
        G(keep_alive_url), G(regist_main_url), G(staticHost), G(realNameSmsH5), G(defaultReviewUrl),
        G(kr_product_id_url), G(kr_generate_order_url), G(kr_mmtp_generate_order_url),
        G(kr_report_normal_receipt_url), G(kr_push_notification_url), G(ChangePswUrl), G(BindPhoneNumUrl),
    };
#undef G
    return all;
}

std::map<std::string, std::string> snapshot(const KIHostService& s) {
    std::map<std::string, std::string> out;
    for (const auto& [name, get] : getters()) out[name] = get(s);
    out["kr_product_id_host"] = s.kr_product_id_host().value_or("<absent>");
    out["kr_generate_order_host"] = s.kr_generate_order_host().value_or("<absent>");
    out["kr_mmtp_generate_order_host"] = s.kr_mmtp_generate_order_host().value_or("<absent>");
    out["kr_report_normal_receipt_host"] = s.kr_report_normal_receipt_host().value_or("<absent>");
    return out;
}

// What a fresh registry answers, written out from the deployment's hosts.
std::map<std::string, std::string> expectedDefaults() {
    const std::string a1 = host("accountHost"), a2 = host("accountHost2"), a3 = host("accountHost3");
    const std::string web = host("webHost"), pay = host("paycenter");
    return {
        {"loginProtocolVersion", "301"}, {"keepAliveVersion", "100"}, {"modifyUserInfoProtocolVersion", "200"},
        {"getCityListInfoProtocolVersion", "202"}, {"setAvatarProtocolVersion", "200"},
        {"kr_third_bind_version", "1.1"}, {"kr_third_login_version", "3.0"}, {"thirdProtocolVersion", "301"},
        {"devcieid_regist_version", "1.1"}, {"devcieid_regis_protocol_version", "3.0"},
        {"JSAndNativeProtocolVersion", "1000"}, {"UsrAvatarImgTmpName", "kriossdk-usrAvatarImageTemp.jpg"},
        {"kr_oauth_md5_salt", "kenvb#=#590r%bcoQCHCsob"}, {"ChangePswSalt", "9dHv9b9VPBH!Ue&Q"},
        {"device_reg_random_key", "7D9CaFB1836CE204975AEd6"},
        {"login_main_host", a1},
        {"login_main_url_noCore", "https://" + a1},
        {"login_main_url", "https://" + a1 + "/kruser.core.login/v3"},
        {"login_master_url", "https://" + a2 + "/kruser.core.login/v3"},
        {"login_primary_url", "https://" + a3 + "/kruser.core.login/v3"},
        {"provider_token_url", "https://" + a1 + "/v1/auth/provider/token"},
        {"singnin_provider_url", "https://" + a1 + "/v1/auth/signin/with/provider"},
        {"userme_getuserinfo_url", "https://" + a1 + "/v1/user/me"},
        {"refresh_accesstoken_url", "https://" + a1 + "/v1/auth/token"},
        {"kr_kruser_ssl_main_url", "https://" + a1}, {"kr_kruser_ssl_master_url", "https://" + a2},
        {"kr_kruser_ssl_primary_url", "https://" + a3},
        {"verify_Code_Server1_url", "https://" + host("captchaHost1")},
        {"verifyCodeServer2", "https://" + host("captchaHost2")},
        {"verifyCodeServer3", "https://" + host("captchaHost3")},
        {"modify_userinfo_url", "https://" + host("interfaceHost")},
        {"recomend_avatar_url", "https://" + host("imageHost")},
        {"kr_oauth_login_url", "https://" + host("oauthHost")},
        {"keep_alive_url", "https://" + host("channelHost")},
        {"regist_main_url", "https://" + host("registHost")},
        {"staticHost", web},
        {"realNameSmsH5", "https://" + web + "/verified_m/"},
        {"defaultReviewUrl", "https://" + web + "/krcaptcha/mobileSDK/ios.html"},
        {"kr_product_id_url", "https://" + pay}, {"kr_generate_order_url", "https://" + pay},
        {"kr_mmtp_generate_order_url", "https://" + pay},
        {"kr_report_normal_receipt_url", "https://" + host("paygateway") + "/payproxy"},
        {"kr_push_notification_url", "https://" + host("pushgateway")},
        {"ChangePswUrl", "https://" + web + "/kruser/wap/validate/enter/modifypwd_enter.html"},
        {"BindPhoneNumUrl", "https://" + web + "/kruser/wap/validate/enter/modifyphone_enter.html"},
        {"kr_product_id_host", "<absent>"}, {"kr_generate_order_host", "<absent>"},
        {"kr_mmtp_generate_order_host", "<absent>"}, {"kr_report_normal_receipt_host", "<absent>"},
    };
}

TEST(KIHostService, AFreshRegistryAnswersTheDeploymentsDefaultsForAll49Properties) {
    const KIHostService fresh;
    const auto expected = expectedDefaults();
    ASSERT_EQ(expected.size(), 49u);
    EXPECT_EQ(snapshot(fresh), expected);
    EXPECT_EQ(&KIHostService::service(), &KIHostService::service());
}

TEST(KIHostService, SettersFollowEachKind) {
    KIHostService s;
    // constant and fixed default: a stored value is kept but never answered.
    s.setLoginProtocolVersion("999");
    s.setVerifyCodeServer2("https://elsewhere.test");
    s.setKr_oauth_login_url("https://elsewhere.test");
    s.setChangePswUrl("https://elsewhere.test/x");
    // stored or default: the stored value wins, including an empty one.
    s.setLogin_main_url("https://moved.test/login");
    s.setKr_push_notification_url("");
    // plain: absent until set.
    s.setKr_product_id_host("pay.test");
    // built: follows the stored static host.
    s.setStaticHost("pages.test");

    auto expected = expectedDefaults();
    expected["login_main_url"] = "https://moved.test/login";
    expected["kr_push_notification_url"] = "";
    expected["kr_product_id_host"] = "pay.test";
    expected["staticHost"] = "pages.test";
    expected["ChangePswUrl"] = "https://pages.test/kruser/wap/validate/enter/modifypwd_enter.html";
    expected["BindPhoneNumUrl"] = "https://pages.test/kruser/wap/validate/enter/modifyphone_enter.html";
    EXPECT_EQ(snapshot(s), expected);

    s.setLogin_main_url(std::nullopt);
    s.setKr_product_id_host(std::nullopt);
    s.setStaticHost(std::nullopt);
    s.setKr_push_notification_url(std::nullopt);
    EXPECT_EQ(snapshot(s), expectedDefaults()) << "clearing brings the defaults back";
}

struct RelocationRow {
    const char* name;
    Dictionary hosts;
    std::map<std::string, std::string> changes;  // from the defaults
    std::optional<Dictionary> thenHosts = std::nullopt;  // a second update, before the changes are read
};

class KIHostServiceRelocation : public ::testing::TestWithParam<RelocationRow> {};

TEST_P(KIHostServiceRelocation, MovesExactlyItsGroup) {
    KIHostService s;
    s.updateHostServers(Value(GetParam().hosts));
    if (GetParam().thenHosts) s.updateHostServers(Value(*GetParam().thenHosts));
    auto expected = expectedDefaults();
    for (const auto& [name, value] : GetParam().changes) {
        ASSERT_TRUE(expected.contains(name)) << name;
        expected[name] = value;
    }
    EXPECT_EQ(snapshot(s), expected) << GetParam().name;
}

const std::string kLogin = "/kruser.core.login/v3";

std::map<std::string, std::string> accountMoves(const std::string& a1, const std::string& master,
                                                const std::string& primary, const std::string& ssl2,
                                                const std::string& ssl3) {
    return {{"login_main_host", a1},
            {"login_main_url_noCore", "https://" + a1},
            {"login_main_url", "https://" + a1 + kLogin},
            {"login_master_url", master},
            {"login_primary_url", primary},
            {"kr_kruser_ssl_main_url", "https://" + a1},
            {"kr_kruser_ssl_master_url", ssl2},
            {"kr_kruser_ssl_primary_url", ssl3}};
}

std::map<std::string, std::string> webMoves(const std::string& w) {
    return {{"staticHost", w},
            {"realNameSmsH5", "https://" + w + "/verified_m/"},
            {"defaultReviewUrl", "https://" + w + "/krcaptcha/mobileSDK/ios.html"},
            {"ChangePswUrl", "https://" + w + "/kruser/wap/validate/enter/modifypwd_enter.html"},
            {"BindPhoneNumUrl", "https://" + w + "/kruser/wap/validate/enter/modifyphone_enter.html"}};
}

std::map<std::string, std::string> merged(std::initializer_list<std::map<std::string, std::string>> parts) {
    std::map<std::string, std::string> out;
    for (const auto& part : parts)
        for (const auto& [k, v] : part) out.insert_or_assign(k, v);  // later parts win
    return out;
}

// A main account host that is not text: shown as printed, while the login URLs, which need
// text, are cleared and fall back to their defaults.
std::map<std::string, std::string> mainHostNotText(const std::string& shown) {
    return merged({accountMoves(shown, "", "", "https://(null)", "https://(null)"),
                   {{"login_main_url", "https://" + host("accountHost") + kLogin},
                    {"login_master_url", "https://" + host("accountHost2") + kLogin},
                    {"login_primary_url", "https://" + host("accountHost3") + kLogin}}});
}

INSTANTIATE_TEST_SUITE_P(
    HostTables, KIHostServiceRelocation,
    ::testing::Values(
        RelocationRow{"Empty", {}, {}},
        RelocationRow{"UnknownKeysOnly", {{"somethingElse", "x.test"}}, {}},
        RelocationRow{"AccountHostAlone",
                      {{"accountHost", "a.test"}},
                      accountMoves("a.test", "https://a.test" + kLogin, "https://a.test" + kLogin, "https://(null)",
                                   "https://(null)")},
        RelocationRow{"AllThreeAccountHosts",
                      {{"accountHost", "a.test"}, {"accountHost2", "b.test"}, {"accountHost3", "c.test"}},
                      accountMoves("a.test", "https://b.test" + kLogin, "https://c.test" + kLogin, "https://b.test",
                                   "https://c.test")},
        RelocationRow{"SecondAndThirdWithoutTheFirstMoveNothing",
                      {{"accountHost2", "b.test"}, {"accountHost3", "c.test"}},
                      {}},
        RelocationRow{"NumericSecondHost",
                      {{"accountHost", "a.test"}, {"accountHost2", 8080}},
                      accountMoves("a.test", "https://a.test" + kLogin, "https://a.test" + kLogin, "https://8080",
                                   "https://(null)")},
        RelocationRow{"NumericMainHost", {{"accountHost", 42}}, mainHostNotText("42")},
        RelocationRow{"NullMainHost", {{"accountHost", Null{}}}, mainHostNotText("<null>")},
        RelocationRow{"RegistHost", {{"registHost", "r.test"}}, {{"regist_main_url", "https://r.test"}}},
        RelocationRow{"ChannelHost", {{"channelHost", "k.test"}}, {{"keep_alive_url", "https://k.test"}}},
        RelocationRow{"WebHost", {{"webHost", "w.test"}}, webMoves("w.test")},
        RelocationRow{"NumericWebHost", {{"webHost", 7}}, webMoves("7")},
        RelocationRow{"Paycenter",
                      {{"paycenter", "p.test"}},
                      {{"kr_product_id_url", "https://p.test"},
                       {"kr_generate_order_url", "https://p.test"},
                       {"kr_mmtp_generate_order_url", "https://p.test"}}},
        RelocationRow{"PaygatewayDropsThePath",
                      {{"paygateway", "g.test"}},
                      {{"kr_report_normal_receipt_url", "https://g.test"}}},
        RelocationRow{"Pushgateway", {{"pushgateway", "n.test"}}, {{"kr_push_notification_url", "https://n.test"}}},
        RelocationRow{"ValuesAreUsedAsFound",
                      {{"registHost", "https://x.test/ "}, {"channelHost", ""}},
                      {{"regist_main_url", "https://https://x.test/ "}, {"keep_alive_url", "https://"}}},
        RelocationRow{"Everything",
                      {{"accountHost", "a.test"},
                       {"accountHost2", "b.test"},
                       {"accountHost3", "c.test"},
                       {"registHost", "r.test"},
                       {"channelHost", "k.test"},
                       {"webHost", "w.test"},
                       {"paycenter", "p.test"},
                       {"paygateway", "g.test"},
                       {"pushgateway", "n.test"}},
                      merged({accountMoves("a.test", "https://b.test" + kLogin, "https://c.test" + kLogin,
                                           "https://b.test", "https://c.test"),
                              webMoves("w.test"),
                              {{"regist_main_url", "https://r.test"},
                               {"keep_alive_url", "https://k.test"},
                               {"kr_product_id_url", "https://p.test"},
                               {"kr_generate_order_url", "https://p.test"},
                               {"kr_mmtp_generate_order_url", "https://p.test"},
                               {"kr_report_normal_receipt_url", "https://g.test"},
                               {"kr_push_notification_url", "https://n.test"}}})},
        // A later table without the account host clears only the stored host; the rest stays.
        RelocationRow{"LaterTableWithoutTheAccountHost",
                      {{"accountHost", "a.test"}, {"webHost", "w.test"}},
                      merged({accountMoves("a.test", "https://a.test" + kLogin, "https://a.test" + kLogin,
                                           "https://(null)", "https://(null)"),
                              webMoves("w.test"),
                              {{"login_main_host", host("accountHost")}, {"regist_main_url", "https://r.test"}}}),
                      Dictionary{{"registHost", "r.test"}}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(KIHostService, AnythingButADictionaryIsIgnored) {
    KIHostService s;
    s.setLogin_main_host("kept.test");
    for (const Value& v : {Value(), Value(Null{}), Value("accountHost"), Value(5),
                           Value(krcommon::platform::Array{Value(Dictionary{{"accountHost", "a.test"}})})})
        s.updateHostServers(v);
    EXPECT_EQ(s.login_main_host(), "kept.test");
}

TEST(KIHostService, HostCoreConvertAndBase64Decoding) {
    EXPECT_EQ(KIHostService::hostCoreConvertWith(Value("h.test")), "https://h.test/kruser.core.login/v3");
    EXPECT_EQ(KIHostService::hostCoreConvertWith(Value("")), "https:///kruser.core.login/v3");
    for (const Value& notText : {Value(), Value(Null{}), Value(1), Value(true), Value(Dictionary{})})
        EXPECT_EQ(KIHostService::hostCoreConvertWith(notText), std::nullopt) << notText.description();

    struct Row {
        std::optional<std::string_view> input;
        std::optional<std::string> expected;
    };
    const Row rows[] = {
        {std::nullopt, ""},
        {"", ""},
        {"aGVsbG8=", "hello"},
        {"aGVs\nbG8=", "hello"},         // line breaks are skipped
        {" a G V s b G 8 = ", "hello"},  // and spaces
        {"aGVs*bG8=!", "hello"},         // and other characters outside the alphabet
        {"5Y+C5pWw", "参数"},
        {"aGVsbG8", std::nullopt},   // cut short
        {"a=GVsbG8", std::nullopt},  // padding inside
        {"/w==", std::nullopt},      // 0xFF is not UTF-8
    };
    for (const auto& row : rows)
        EXPECT_EQ(KIHostService::debase64With(row.input), row.expected) << row.input.value_or("(absent)");
}

}  // namespace

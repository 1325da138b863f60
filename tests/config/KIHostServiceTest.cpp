// The endpoint registry: each kind of getter, and the relocation of endpoint groups by a host dictionary.
#include <krcommon/config/KIHostService.h>

#include <gtest/gtest.h>

#include <map>

using krcommon::KIHostService;
using namespace krcommon::platform;
using Snapshot = std::map<std::string, std::string>;

namespace {

// Every endpoint getter by name, one constant among them; absent hosts read "-".
Snapshot snapshot(const KIHostService& s) {
#define G(name) {#name, std::string(s.name())}
#define H(name) {#name, s.name().value_or("-")}
    return {G(login_main_host), G(login_main_url_noCore), G(login_main_url), G(login_master_url), G(login_primary_url),
            G(provider_token_url), G(singnin_provider_url), G(userme_getuserinfo_url), G(refresh_accesstoken_url),
            G(kr_kruser_ssl_main_url), G(kr_kruser_ssl_master_url), G(kr_kruser_ssl_primary_url),
            G(verify_Code_Server1_url), G(verifyCodeServer2), G(verifyCodeServer3), G(modify_userinfo_url),
            G(recomend_avatar_url), G(kr_oauth_login_url), G(keep_alive_url), G(regist_main_url), G(staticHost),
            G(realNameSmsH5), G(defaultReviewUrl), G(kr_product_id_url), G(kr_generate_order_url),
            G(kr_mmtp_generate_order_url), G(kr_report_normal_receipt_url), G(kr_push_notification_url),
            G(ChangePswUrl), G(BindPhoneNumUrl), H(kr_product_id_host), H(kr_generate_order_host),
            H(kr_mmtp_generate_order_host), H(kr_report_normal_receipt_host), G(loginProtocolVersion)};
#undef G
#undef H
}

// A fresh registry's answers with `changes` laid over them.
Snapshot defaultsWith(const Snapshot& changes) {
    Snapshot all = snapshot(KIHostService{});
    for (const auto& [name, value] : changes) EXPECT_FALSE(all.insert_or_assign(name, value).second) << name;
    return all;
}

const std::string kLogin = "/kruser.core.login/v3", kA = "https://a.test" + kLogin, kNil = "https://(null)";
const std::string kPwd = "/kruser/wap/validate/enter/modifypwd_enter.html";
const std::string kPhone = "/kruser/wap/validate/enter/modifyphone_enter.html";

using S = const std::string&;
Snapshot account(S master, S primary, S ssl2, S ssl3, S main = "a.test") {
    return {{"login_main_host", main}, {"login_main_url_noCore", "https://" + main},
            {"login_main_url", "https://" + main + kLogin}, {"login_master_url", master},
            {"login_primary_url", primary}, {"kr_kruser_ssl_main_url", "https://" + main},
            {"kr_kruser_ssl_master_url", ssl2}, {"kr_kruser_ssl_primary_url", ssl3}};
}

Snapshot web(const std::string& w) {
    return {{"staticHost", w}, {"realNameSmsH5", "https://" + w + "/verified_m/"},
            {"defaultReviewUrl", "https://" + w + "/krcaptcha/mobileSDK/ios.html"},
            {"ChangePswUrl", "https://" + w + kPwd}, {"BindPhoneNumUrl", "https://" + w + kPhone}};
}

TEST(KIHostService, DefaultsAndTheKindsOfGetter) {
    KIHostService s;
    const Snapshot defaults = snapshot(s);
    EXPECT_EQ(defaults.at("login_main_url"), "https://" + defaults.at("login_main_host") + kLogin);
    EXPECT_EQ(defaults.at("realNameSmsH5"), "https://" + defaults.at("staticHost") + "/verified_m/");
    s.setLoginProtocolVersion("999");  // constant and fixed default: stored, never answered
    s.setVerifyCodeServer2("x.test");
    s.setChangePswUrl("x.test");  // built: follows the static host alone
    s.setLogin_main_url("");      // stored or default: what is stored wins, even empty
    s.setStaticHost("w.test");
    s.setKr_product_id_host("p.test");  // plain
    for (const Value& notADictionary : {Value(), Value(Null{}), Value("accountHost"), Value(5)})
        s.updateHostServers(notADictionary);
    Snapshot moved = web("w.test");
    moved.erase("realNameSmsH5"), moved.erase("defaultReviewUrl");  // stored pages: only a dictionary moves them
    moved.merge(Snapshot{{"login_main_url", ""}, {"kr_product_id_host", "p.test"}});
    EXPECT_EQ(snapshot(s), defaultsWith(moved));
    s.setLogin_main_url(std::nullopt);
    s.setStaticHost(std::nullopt);
    EXPECT_EQ(snapshot(s), defaultsWith({{"kr_product_id_host", "p.test"}}));
}

TEST(KIHostService, ADictionaryMovesExactlyItsGroups) {
    Snapshot notText = account("", "", kNil, kNil, "42");  // printed, while the login URLs need text and stay
    notText.erase("login_main_url"), notText.erase("login_master_url"), notText.erase("login_primary_url");
    Snapshot later = account(kA, kA, kNil, kNil);  // a later dictionary clears only the stored main host
    later.erase("login_main_host"), later.merge(web("w.test")), later.emplace("regist_main_url", "https://r.test");
    const struct { const char* name; std::vector<Dictionary> hosts; Snapshot changes; } rows[] = {
        {"AccountHost", {{{"accountHost", "a.test"}}}, account(kA, kA, kNil, kNil)},
        {"ThreeAccountHosts", {{{"accountHost", "a.test"}, {"accountHost2", "b.test"}, {"accountHost3", "c.test"}}},
         account("https://b.test" + kLogin, "https://c.test" + kLogin, "https://b.test", "https://c.test")},
        {"SecondAndThirdAlone", {{{"accountHost2", "b.test"}, {"accountHost3", "c.test"}, {"other", "x"}}}, {}},
        {"NumericSecondHost", {{{"accountHost", "a.test"}, {"accountHost2", 8080}}},
         account(kA, kA, "https://8080", kNil)},
        {"NumericMainHost", {{{"accountHost", 42}}}, notText},
        {"RegistHost", {{{"registHost", "r.test"}}}, {{"regist_main_url", "https://r.test"}}},
        {"ChannelHost", {{{"channelHost", "k.test"}}}, {{"keep_alive_url", "https://k.test"}}},
        {"WebHost", {{{"webHost", "w.test"}}}, web("w.test")},
        {"Paycenter", {{{"paycenter", "p.test"}}},
         {{"kr_product_id_url", "https://p.test"}, {"kr_generate_order_url", "https://p.test"},
          {"kr_mmtp_generate_order_url", "https://p.test"}}},
        {"PaygatewayWithoutPath", {{{"paygateway", "g.test"}}}, {{"kr_report_normal_receipt_url", "https://g.test"}}},
        {"Pushgateway", {{{"pushgateway", "n.test"}}}, {{"kr_push_notification_url", "https://n.test"}}},
        {"LaterWithoutAccountHost", {{{"accountHost", "a.test"}, {"webHost", "w.test"}}, {{"registHost", "r.test"}}},
         later}};
    for (const auto& row : rows) {
        KIHostService s;
        for (const auto& hosts : row.hosts) s.updateHostServers(Value(hosts));
        EXPECT_EQ(snapshot(s), defaultsWith(row.changes)) << row.name;
    }
}

TEST(KIHostService, Base64DefaultsSkipForeignCharactersAndLoginUrlsNeedText) {
    const std::pair<std::optional<std::string_view>, std::optional<std::string>> rows[] = {
        {std::nullopt, ""}, {"", ""}, {"PzZ9bCl+WcO/aX0jLEA=", "?6}l)~Y\xC3\xBFi}#,@"},  // every edge of the alphabet
        {" a G V s\nbG8*=! ", "hello"}, {"aGVsbG8", std::nullopt}, {"a=GVsbG8", std::nullopt}, {"/w==", std::nullopt}};
    for (const auto& [text, expected] : rows)
        EXPECT_EQ(KIHostService::debase64With(text), expected) << text.value_or("(absent)");
    EXPECT_EQ(KIHostService::hostCoreConvertWith(Value("h.test")), "https://h.test" + kLogin);
    for (const Value& notText : {Value(), Value(Null{}), Value(1)})
        EXPECT_EQ(KIHostService::hostCoreConvertWith(notText), std::nullopt) << notText.description();
}

}  // namespace

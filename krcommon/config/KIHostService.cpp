#include <krcommon/config/KIHostService.h>

#include <krcommon/platform/core/Format.h>
#include <krcommon/platform/io/UTF8.h>
#include <krcommon/util/EncryptCommon.h>

#include <array>
#include <mutex>

namespace krcommon {

using platform::Value;
using Text = KIHostService::Text;

const char* const key_for_accountHost = "accountHost";
const char* const key_for_accountHost2 = "accountHost2";
const char* const key_for_accountHost3 = "accountHost3";
const char* const key_for_registHost = "registHost";
const char* const key_for_channelHost = "channelHost";
const char* const key_for_webHost = "webHost";
const char* const key_for_paycenter = "paycenter";
const char* const key_for_paygateway = "paygateway";
const char* const key_for_pushgateway = "pushgateway";

namespace {

// The built-in endpoints of the deployment, as Base64 text, one member per
// property (generated at configure time from the deployment file).
struct BuiltIn {
#define KRCOMMON_HOST_DEFAULT(property, base64) static constexpr const char* property = base64;
#include "krcommon/config/KIHostServiceDefaults.inc"
#undef KRCOMMON_HOST_DEFAULT
};

// Every property, with its setter's spelling. The kinds are told apart by the
// lists below.
#define KR_CONSTANT_PROPERTIES(X)                                              \
    X(loginProtocolVersion, LoginProtocolVersion, "301")                       \
    X(keepAliveVersion, KeepAliveVersion, "100")                               \
    X(modifyUserInfoProtocolVersion, ModifyUserInfoProtocolVersion, "200")     \
    X(getCityListInfoProtocolVersion, GetCityListInfoProtocolVersion, "202")   \
    X(setAvatarProtocolVersion, SetAvatarProtocolVersion, "200")               \
    X(kr_oauth_md5_salt, Kr_oauth_md5_salt, "kenvb#=#590r%bcoQCHCsob")         \
    X(kr_third_bind_version, Kr_third_bind_version, "1.1")                     \
    X(kr_third_login_version, Kr_third_login_version, "3.0")                   \
    X(thirdProtocolVersion, ThirdProtocolVersion, "301")                       \
    X(devcieid_regist_version, Devcieid_regist_version, "1.1")                 \
    X(devcieid_regis_protocol_version, Devcieid_regis_protocol_version, "3.0") \
    X(JSAndNativeProtocolVersion, JSAndNativeProtocolVersion, "1000")          \
    X(UsrAvatarImgTmpName, UsrAvatarImgTmpName, "kriossdk-usrAvatarImageTemp.jpg") \
    X(ChangePswSalt, ChangePswSalt, "9dHv9b9VPBH!Ue&Q")                        \
    X(device_reg_random_key, Device_reg_random_key, "7D9CaFB1836CE204975AEd6")

#define KR_STORED_OR_DEFAULT_PROPERTIES(X)                          \
    X(login_main_host, Login_main_host)                             \
    X(login_main_url_noCore, Login_main_url_noCore)                 \
    X(login_main_url, Login_main_url)                               \
    X(login_master_url, Login_master_url)                           \
    X(login_primary_url, Login_primary_url)                         \
    X(provider_token_url, Provider_token_url)                       \
    X(singnin_provider_url, Singnin_provider_url)                   \
    X(userme_getuserinfo_url, Userme_getuserinfo_url)               \
    X(refresh_accesstoken_url, Refresh_accesstoken_url)             \
    X(kr_kruser_ssl_main_url, Kr_kruser_ssl_main_url)               \
    X(kr_kruser_ssl_master_url, Kr_kruser_ssl_master_url)           \
    X(kr_kruser_ssl_primary_url, Kr_kruser_ssl_primary_url)         \
    X(keep_alive_url, Keep_alive_url)                               \
    X(regist_main_url, Regist_main_url)                             \
    X(staticHost, StaticHost)                                       \
    X(realNameSmsH5, RealNameSmsH5)                                 \
    X(defaultReviewUrl, DefaultReviewUrl)                           \
    X(kr_product_id_url, Kr_product_id_url)                         \
    X(kr_generate_order_url, Kr_generate_order_url)                 \
    X(kr_mmtp_generate_order_url, Kr_mmtp_generate_order_url)       \
    X(kr_report_normal_receipt_url, Kr_report_normal_receipt_url)   \
    X(kr_push_notification_url, Kr_push_notification_url)

#define KR_FIXED_DEFAULT_PROPERTIES(X)                  \
    X(verify_Code_Server1_url, Verify_Code_Server1_url) \
    X(verifyCodeServer2, VerifyCodeServer2)             \
    X(verifyCodeServer3, VerifyCodeServer3)             \
    X(modify_userinfo_url, Modify_userinfo_url)         \
    X(recomend_avatar_url, Recomend_avatar_url)         \
    X(kr_oauth_login_url, Kr_oauth_login_url)

#define KR_PLAIN_PROPERTIES(X)                                        \
    X(kr_product_id_host, Kr_product_id_host)                         \
    X(kr_generate_order_host, Kr_generate_order_host)                 \
    X(kr_mmtp_generate_order_host, Kr_mmtp_generate_order_host)       \
    X(kr_report_normal_receipt_host, Kr_report_normal_receipt_host)

#define KR_BUILT_PROPERTIES(X)          \
    X(ChangePswUrl, ChangePswUrl)       \
    X(BindPhoneNumUrl, BindPhoneNumUrl)

#define KR_ENUM_ENTRY(name, ...) name,
enum class Property : std::size_t {
    KR_CONSTANT_PROPERTIES(KR_ENUM_ENTRY) KR_STORED_OR_DEFAULT_PROPERTIES(KR_ENUM_ENTRY)
        KR_FIXED_DEFAULT_PROPERTIES(KR_ENUM_ENTRY) KR_PLAIN_PROPERTIES(KR_ENUM_ENTRY)
            KR_BUILT_PROPERTIES(KR_ENUM_ENTRY) count
};
#undef KR_ENUM_ENTRY

static_assert(static_cast<std::size_t>(Property::count) == 49, "the registry has 49 properties");

std::string decoded(const char* base64) { return KIHostService::debase64With(base64).value_or(std::string()); }

// What a value of the host dictionary is stored as: a string as itself, any
// other object as its printed form; nil stays absent.
Text storedForm(const Value& value) {
    if (value.isNil()) return std::nullopt;
    return value.description();
}

std::string origin(const Value& host) { return platform::format("https://%@", host); }

std::string replacingAll(std::string text, std::string_view target, std::string_view replacement) {
    if (target.empty()) return text;
    for (std::size_t at = text.find(target); at != std::string::npos;
         at = text.find(target, at + replacement.size()))
        text.replace(at, target.size(), replacement);
    return text;
}

bool isBase64Character(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' || c == '/' ||
           c == '=';
}

}  // namespace

struct KIHostService::State {
    mutable std::mutex mutex;
    std::array<Text, static_cast<std::size_t>(Property::count)> stored;

    Text get(Property p) const {
        std::lock_guard lock(mutex);
        return stored[static_cast<std::size_t>(p)];
    }
    void set(Property p, Text value) {
        std::lock_guard lock(mutex);
        stored[static_cast<std::size_t>(p)] = std::move(value);
    }
    // For use under the lock.
    Text& at(Property p) { return stored[static_cast<std::size_t>(p)]; }
};

KIHostService& KIHostService::service() {
    static KIHostService* const instance = new KIHostService;  // lives until the process ends
    return *instance;
}

KIHostService::KIHostService() : state_(std::make_unique<State>()) {}

KIHostService::~KIHostService() = default;

// Setters: every property stores its value, whatever its getter does with it.
#define KR_SETTER(name, Capitalised, ...) \
    void KIHostService::set##Capitalised(Text value) { state_->set(Property::name, std::move(value)); }
KR_CONSTANT_PROPERTIES(KR_SETTER)
KR_STORED_OR_DEFAULT_PROPERTIES(KR_SETTER)
KR_FIXED_DEFAULT_PROPERTIES(KR_SETTER)
KR_PLAIN_PROPERTIES(KR_SETTER)
KR_BUILT_PROPERTIES(KR_SETTER)
#undef KR_SETTER

#define KR_CONSTANT_GETTER(name, Capitalised, literal) \
    std::string KIHostService::name() const { return literal; }
KR_CONSTANT_PROPERTIES(KR_CONSTANT_GETTER)
#undef KR_CONSTANT_GETTER

#define KR_STORED_OR_DEFAULT_GETTER(name, Capitalised)                   \
    std::string KIHostService::name() const {                            \
        if (auto value = state_->get(Property::name)) return *value;     \
        return decoded(BuiltIn::name);                                   \
    }
KR_STORED_OR_DEFAULT_PROPERTIES(KR_STORED_OR_DEFAULT_GETTER)
#undef KR_STORED_OR_DEFAULT_GETTER

#define KR_FIXED_DEFAULT_GETTER(name, Capitalised) \
    std::string KIHostService::name() const { return decoded(BuiltIn::name); }
KR_FIXED_DEFAULT_PROPERTIES(KR_FIXED_DEFAULT_GETTER)
#undef KR_FIXED_DEFAULT_GETTER

#define KR_PLAIN_GETTER(name, Capitalised) \
    Text KIHostService::name() const { return state_->get(Property::name); }
KR_PLAIN_PROPERTIES(KR_PLAIN_GETTER)
#undef KR_PLAIN_GETTER

std::string KIHostService::ChangePswUrl() const {
    return platform::format("https://%@/kruser/wap/validate/enter/modifypwd_enter.html", staticHost());
}

std::string KIHostService::BindPhoneNumUrl() const {
    return platform::format("https://%@/kruser/wap/validate/enter/modifyphone_enter.html", staticHost());
}

std::optional<std::string> KIHostService::hostCoreConvertWith(const Value& host) {
    if (!host.isString()) return std::nullopt;
    return platform::format("https://%@/kruser.core.login/v3", host);
}

std::optional<std::string> KIHostService::debase64With(std::optional<std::string_view> text) {
    if (!text) return std::string();
    std::string alphabetOnly;
    alphabetOnly.reserve(text->size());
    for (char c : *text) {
        if (isBase64Character(c)) alphabetOnly.push_back(c);
    }
    auto bytes = EncryptCommon::decodeBase64(alphabetOnly);
    if (!bytes) return std::nullopt;
    std::string decodedText(bytes->begin(), bytes->end());
    if (!platform::UTF8::isValid(decodedText)) return std::nullopt;
    return decodedText;
}

void KIHostService::updateHostServers(const Value& hosts) {
    const platform::Dictionary* d = hosts.dictionary();
    if (!d) return;
    const Value& account = (*d)[key_for_accountHost];
    const Value& account2 = (*d)[key_for_accountHost2];
    const Value& account3 = (*d)[key_for_accountHost3];
    const Value& regist = (*d)[key_for_registHost];
    const Value& channel = (*d)[key_for_channelHost];
    const Value& web = (*d)[key_for_webHost];
    const Value& paycenter = (*d)[key_for_paycenter];
    const Value& paygateway = (*d)[key_for_paygateway];
    const Value& pushgateway = (*d)[key_for_pushgateway];

    // The pages to move with the web host are made before taking the lock.
    Text reviewPage, realNamePage;
    if (!web.isNil()) {
        const std::string builtInHost = decoded(BuiltIn::staticHost);
        const std::string webHost = web.description();
        reviewPage = replacingAll(decoded(BuiltIn::defaultReviewUrl), builtInHost, webHost);
        realNamePage = replacingAll(decoded(BuiltIn::realNameSmsH5), builtInHost, webHost);
    }

    std::lock_guard lock(state_->mutex);
    auto& s = *state_;
    // Stored unconditionally: a dictionary without the key clears the host.
    s.at(Property::login_main_host) = storedForm(account);
    if (s.at(Property::login_main_host)) {
        s.at(Property::login_main_url_noCore) = origin(account);
        s.at(Property::login_main_url) = hostCoreConvertWith(account);
        const Text mainLogin = s.at(Property::login_main_url);
        auto master = hostCoreConvertWith(account2);
        s.at(Property::login_master_url) = master ? master : mainLogin;
        auto primary = hostCoreConvertWith(account3);
        s.at(Property::login_primary_url) = primary ? primary : mainLogin;
        s.at(Property::kr_kruser_ssl_main_url) = origin(account);
        // Formatted text is never absent, so an absent second or third host
        // gives "https://(null)" rather than the main origin.
        s.at(Property::kr_kruser_ssl_master_url) = origin(account2);
        s.at(Property::kr_kruser_ssl_primary_url) = origin(account3);
    }
    if (!regist.isNil()) s.at(Property::regist_main_url) = origin(regist);
    if (!channel.isNil()) s.at(Property::keep_alive_url) = origin(channel);
    if (!web.isNil()) {
        s.at(Property::staticHost) = storedForm(web);
        s.at(Property::defaultReviewUrl) = std::move(reviewPage);
        s.at(Property::realNameSmsH5) = std::move(realNamePage);
    }
    if (!paycenter.isNil()) {
        const std::string url = origin(paycenter);
        s.at(Property::kr_product_id_url) = url;
        s.at(Property::kr_generate_order_url) = url;
        s.at(Property::kr_mmtp_generate_order_url) = url;
    }
    if (!paygateway.isNil()) s.at(Property::kr_report_normal_receipt_url) = origin(paygateway);
    if (!pushgateway.isNil()) s.at(Property::kr_push_notification_url) = origin(pushgateway);
}

}  // namespace krcommon

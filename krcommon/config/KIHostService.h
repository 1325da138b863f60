#pragma once

// The registry of every endpoint, protocol version and fixed parameter of the
// account SDK. Built-in endpoints are deployment values (the build embeds them
// from its deployment file, see cmake/KRCommonDeployment.cmake) kept as Base64
// text and decoded on every read; the host application can move groups of
// them to other hosts at run time with `updateHostServers`.
//
// Each property has a getter and a setter. What a getter answers depends on the
// property's kind:
// - constant: a fixed text; a value stored with the setter is kept, never read.
// - fixed default: the built-in value; a stored value is ignored.
// - stored or default: the stored value when there is one, else the built-in
//   value (which is not stored).
// - built: a URL made from `staticHost()` on every call.
// - plain: the stored value, nullopt until set.
// A fresh registry stores nothing. Nothing is persisted: a relocation lasts
// until the process ends. All members are thread-safe.

#include <krcommon/platform/core/Value.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace krcommon {

/// Keys of the host dictionary given to `KIHostService::updateHostServers`.
/// Each names a host (no scheme) that moves a group of endpoints.
KRCOMMON_EXPORT extern const char* const key_for_accountHost;   ///< "accountHost": main account service
KRCOMMON_EXPORT extern const char* const key_for_accountHost2;  ///< "accountHost2": second account service
KRCOMMON_EXPORT extern const char* const key_for_accountHost3;  ///< "accountHost3": third account service
KRCOMMON_EXPORT extern const char* const key_for_registHost;    ///< "registHost": registration service
KRCOMMON_EXPORT extern const char* const key_for_channelHost;   ///< "channelHost": keep-alive channel service
KRCOMMON_EXPORT extern const char* const key_for_webHost;       ///< "webHost": web-page (static) host
KRCOMMON_EXPORT extern const char* const key_for_paycenter;     ///< "paycenter": payment-centre agent
KRCOMMON_EXPORT extern const char* const key_for_paygateway;    ///< "paygateway": payment receipt service
KRCOMMON_EXPORT extern const char* const key_for_pushgateway;   ///< "pushgateway": push gateway

class KRCOMMON_EXPORT KIHostService {
public:
    /// The shared registry, created on first use.
    static KIHostService& service();

    /// A registry that stores nothing yet.
    KIHostService();
    ~KIHostService();
    KIHostService(const KIHostService&) = delete;
    KIHostService& operator=(const KIHostService&) = delete;

    /// Moves endpoints to the hosts of a host dictionary (keys `key_for_...`,
    /// values bare host names). Anything but a dictionary is ignored. In order:
    /// - "accountHost" is stored as `login_main_host` whatever it is, so a
    ///   dictionary without it clears the stored host. When present, the main
    ///   account origin, login URL and SSL URL move to it; the second and third
    ///   login URLs move to "accountHost2" / "accountHost3", or to the main login
    ///   URL when those are not strings; the second and third SSL URLs become
    ///   "https://" + the printed form of "accountHost2" / "accountHost3", which
    ///   is "https://(null)" when absent.
    /// - "registHost", "channelHost", "paycenter" (three order URLs),
    ///   "paygateway" and "pushgateway" each move their origins when present.
    /// - "webHost" becomes `staticHost`, and the built-in review and real-name
    ///   pages are stored with the built-in static host replaced by it.
    /// Values are used as found: a value that is not a string is printed
    /// (a number as its digits); nothing is trimmed or checked for a scheme.
    /// The "/v1/" account URLs, the captcha, interface, avatar and OAuth
    /// endpoints and the `..._host` entries never move.
    void updateHostServers(const platform::Value& hosts);

    /// "https://<host>/kruser.core.login/v3" when `host` is a string, else nullopt.
    [[nodiscard]] static std::optional<std::string> hostCoreConvertWith(const platform::Value& host);

    /// The UTF-8 text of Base64 `text`, skipping characters outside the Base64
    /// alphabet; "" for an absent argument; nullopt when the rest is not valid
    /// Base64 or the bytes are not UTF-8.
    [[nodiscard]] static std::optional<std::string> debase64With(std::optional<std::string_view> text);

    using Text = std::optional<std::string>;

    // Protocol versions and fixed parameters (constant).
    [[nodiscard]] std::string loginProtocolVersion() const;  ///< "301"
    void setLoginProtocolVersion(Text value);
    [[nodiscard]] std::string keepAliveVersion() const;  ///< "100"
    void setKeepAliveVersion(Text value);
    [[nodiscard]] std::string modifyUserInfoProtocolVersion() const;  ///< "200"
    void setModifyUserInfoProtocolVersion(Text value);
    [[nodiscard]] std::string getCityListInfoProtocolVersion() const;  ///< "202"
    void setGetCityListInfoProtocolVersion(Text value);
    [[nodiscard]] std::string setAvatarProtocolVersion() const;  ///< "200"
    void setSetAvatarProtocolVersion(Text value);
    [[nodiscard]] std::string kr_oauth_md5_salt() const;  ///< salt of the OAuth login signature
    void setKr_oauth_md5_salt(Text value);
    [[nodiscard]] std::string kr_third_bind_version() const;  ///< "1.1"
    void setKr_third_bind_version(Text value);
    [[nodiscard]] std::string kr_third_login_version() const;  ///< "3.0"
    void setKr_third_login_version(Text value);
    [[nodiscard]] std::string thirdProtocolVersion() const;  ///< "301"
    void setThirdProtocolVersion(Text value);
    [[nodiscard]] std::string devcieid_regist_version() const;  ///< "1.1"
    void setDevcieid_regist_version(Text value);
    [[nodiscard]] std::string devcieid_regis_protocol_version() const;  ///< "3.0"
    void setDevcieid_regis_protocol_version(Text value);
    [[nodiscard]] std::string JSAndNativeProtocolVersion() const;  ///< "1000"
    void setJSAndNativeProtocolVersion(Text value);
    [[nodiscard]] std::string UsrAvatarImgTmpName() const;  ///< temporary file name of an avatar image
    void setUsrAvatarImgTmpName(Text value);
    [[nodiscard]] std::string ChangePswSalt() const;  ///< salt used when changing a password
    void setChangePswSalt(Text value);
    [[nodiscard]] std::string device_reg_random_key() const;  ///< key of the device registration
    void setDevice_reg_random_key(Text value);

    // Account service (stored or default).
    [[nodiscard]] std::string login_main_host() const;  ///< main account host, bare
    void setLogin_main_host(Text value);
    [[nodiscard]] std::string login_main_url_noCore() const;  ///< main account origin
    void setLogin_main_url_noCore(Text value);
    [[nodiscard]] std::string login_main_url() const;  ///< main account login URL
    void setLogin_main_url(Text value);
    [[nodiscard]] std::string login_master_url() const;  ///< second account login URL
    void setLogin_master_url(Text value);
    [[nodiscard]] std::string login_primary_url() const;  ///< third account login URL
    void setLogin_primary_url(Text value);
    [[nodiscard]] std::string provider_token_url() const;  ///< main account origin + "/v1/auth/provider/token"
    void setProvider_token_url(Text value);
    [[nodiscard]] std::string singnin_provider_url() const;  ///< main account origin + "/v1/auth/signin/with/provider"
    void setSingnin_provider_url(Text value);
    [[nodiscard]] std::string userme_getuserinfo_url() const;  ///< main account origin + "/v1/user/me"
    void setUserme_getuserinfo_url(Text value);
    [[nodiscard]] std::string refresh_accesstoken_url() const;  ///< main account origin + "/v1/auth/token"
    void setRefresh_accesstoken_url(Text value);
    [[nodiscard]] std::string kr_kruser_ssl_main_url() const;  ///< main account origin
    void setKr_kruser_ssl_main_url(Text value);
    [[nodiscard]] std::string kr_kruser_ssl_master_url() const;  ///< second account origin
    void setKr_kruser_ssl_master_url(Text value);
    [[nodiscard]] std::string kr_kruser_ssl_primary_url() const;  ///< third account origin
    void setKr_kruser_ssl_primary_url(Text value);

    // Captcha, interface, avatar and OAuth services (fixed default).
    [[nodiscard]] std::string verify_Code_Server1_url() const;  ///< first captcha service origin
    void setVerify_Code_Server1_url(Text value);
    [[nodiscard]] std::string verifyCodeServer2() const;  ///< second captcha service origin
    void setVerifyCodeServer2(Text value);
    [[nodiscard]] std::string verifyCodeServer3() const;  ///< third captcha service origin
    void setVerifyCodeServer3(Text value);
    [[nodiscard]] std::string modify_userinfo_url() const;  ///< account interface service origin
    void setModify_userinfo_url(Text value);
    [[nodiscard]] std::string recomend_avatar_url() const;  ///< user-centre image service origin
    void setRecomend_avatar_url(Text value);
    [[nodiscard]] std::string kr_oauth_login_url() const;  ///< OAuth login service origin
    void setKr_oauth_login_url(Text value);

    // Channel, registration, web pages, payment and push (stored or default).
    [[nodiscard]] std::string keep_alive_url() const;  ///< keep-alive channel origin; moved by "channelHost"
    void setKeep_alive_url(Text value);
    [[nodiscard]] std::string regist_main_url() const;  ///< registration service origin; moved by "registHost"
    void setRegist_main_url(Text value);
    [[nodiscard]] std::string staticHost() const;  ///< web-page host, bare
    void setStaticHost(Text value);
    [[nodiscard]] std::string realNameSmsH5() const;  ///< real-name verification page
    void setRealNameSmsH5(Text value);
    [[nodiscard]] std::string defaultReviewUrl() const;  ///< captcha review page
    void setDefaultReviewUrl(Text value);
    [[nodiscard]] std::string kr_product_id_url() const;  ///< payment-centre origin; moved by "paycenter"
    void setKr_product_id_url(Text value);
    [[nodiscard]] std::string kr_generate_order_url() const;  ///< payment-centre origin; moved by "paycenter"
    void setKr_generate_order_url(Text value);
    [[nodiscard]] std::string kr_mmtp_generate_order_url() const;  ///< payment-centre origin; moved by "paycenter"
    void setKr_mmtp_generate_order_url(Text value);
    /// Payment receipt service: its origin + "/payproxy" as built in, but only the origin once
    /// "paygateway" has moved it.
    [[nodiscard]] std::string kr_report_normal_receipt_url() const;
    void setKr_report_normal_receipt_url(Text value);
    [[nodiscard]] std::string kr_push_notification_url() const;  ///< push gateway origin; moved by "pushgateway"
    void setKr_push_notification_url(Text value);

    // Web pages on the static host (built).
    [[nodiscard]] std::string ChangePswUrl() const;  ///< "https://<staticHost>/kruser/wap/validate/enter/modifypwd_enter.html"
    void setChangePswUrl(Text value);
    [[nodiscard]] std::string BindPhoneNumUrl() const;  ///< "https://<staticHost>/kruser/wap/validate/enter/modifyphone_enter.html"
    void setBindPhoneNumUrl(Text value);

    // Payment hosts (plain).
    [[nodiscard]] Text kr_product_id_host() const;
    void setKr_product_id_host(Text value);
    [[nodiscard]] Text kr_generate_order_host() const;
    void setKr_generate_order_host(Text value);
    [[nodiscard]] Text kr_mmtp_generate_order_host() const;
    void setKr_mmtp_generate_order_host(Text value);
    [[nodiscard]] Text kr_report_normal_receipt_host() const;
    void setKr_report_normal_receipt_host(Text value);

private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace krcommon

#include <krcommon/report/KRReportParam.h>

#include <krcommon/config/KIHostService.h>
#include <krcommon/errors/KRSDKLogger.h>

namespace krcommon {

namespace {
constexpr std::string_view kFile = "KRReportParam";
constexpr std::string_view kPrefix = "Common";
}  // namespace

std::optional<platform::Dictionary> KRReportParam::paramDictionaryInfo() {
    KRSDKLogger::log(kFile, __func__, 25, kPrefix, 2, "reqeust typestrying is:%@", typeStr());
    if (typeStr() == reportStasticsInfo) return std::nullopt;
    return platform::Dictionary{};
}

KRCommonReqBaseParam::Text KRReportParam::requestUrl() {
    const std::string origin = KIHostService::service().login_main_url_noCore();
    if (typeStr() == reportStasticsInfo) return origin + "/loginstat";
    if (typeStr() == reportUIActionInfo) return origin + "/kruserstat";
    return origin;
}

void KRReportParam::handleRespondData(const platform::Value&) {
    // Reports need nothing done with their answers; the type is traced.
    KRSDKLogger::log(kFile, __func__, 34, kPrefix, 1, "======== (%@) ========", typeStr());
}

void KRReportParam::succWithTask(const std::shared_ptr<platform::Object>&, const platform::Value&,
                                 const FinishBlock&) {}

void KRReportParam::failWithTask(const std::shared_ptr<platform::Object>&, const platform::Value&,
                                 const std::shared_ptr<platform::Error>&, const FinishBlock&) {}

}  // namespace krcommon

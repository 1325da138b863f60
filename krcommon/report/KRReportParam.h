#pragma once

// The parameter object of the statistics reports. The report adapter uses it
// for the URL of its two requests; the URL follows the account service's main
// origin at each call, so a host moved with `updateHostServers` applies at once.

#include <krcommon/platform/core/Error.h>
#include <krcommon/report/KRCommonReqBaseParam.h>

#include <functional>

namespace krcommon {

class KRCOMMON_EXPORT KRReportParam : public KRCommonReqBaseParam {
public:
    /// Type of the batch upload of queued statistics: URL origin + "/loginstat".
    static constexpr const char* reportStasticsInfo = "reportStasticsInfo";
    /// Type of one user-action report: URL origin + "/kruserstat".
    static constexpr const char* reportUIActionInfo = "reportUIActionInfo";

    /// What a request object hands back when its request has ended.
    using FinishBlock = std::function<void(const platform::Value& response, const std::shared_ptr<platform::Error>& error)>;

    /// As the base class's, made as a KRReportParam; nullptr for an absent dictionary.
    static std::shared_ptr<KRReportParam> initWithParamDictionary(std::optional<platform::Dictionary> paramDictionary,
                                                                  Text typeString = std::nullopt) {
        return KRCommonReqBaseParam::initWithParamDictionary<KRReportParam>(std::move(paramDictionary),
                                                                            std::move(typeString));
    }

    /// Logs the type, then answers nil for the statistics type (the adapter
    /// builds that body itself) and an empty dictionary for any other.
    [[nodiscard]] std::optional<platform::Dictionary> paramDictionaryInfo() override;
    /// The main account origin (`KIHostService::login_main_url_noCore`) followed
    /// by "/loginstat" or "/kruserstat" by type; the bare origin for any other type.
    [[nodiscard]] Text requestUrl() override;
    /// Logs the type; nothing else.
    void handleRespondData(const platform::Value& response) override;

    /// Accept their arguments and do nothing; `finishBlock` is never called, so
    /// nobody may wait for it.
    void succWithTask(const std::shared_ptr<platform::Object>& task, const platform::Value& response,
                      const FinishBlock& finishBlock);
    void failWithTask(const std::shared_ptr<platform::Object>& task, const platform::Value& response,
                      const std::shared_ptr<platform::Error>& error, const FinishBlock& finishBlock);
};

}  // namespace krcommon

// Request parameter objects: creation, task identifiers, unoverridden operations and the report URLs.
#include <krcommon/config/KIHostService.h>
#include <krcommon/report/KRReportParam.h>

#include "support/LogCapture.h"

#include <gtest/gtest.h>

namespace krcommon {
namespace {

using namespace platform;

TEST(KRCommonReqBaseParam, NeedsADictionaryCountsTaskIdentifiersAndTracesWhatSubclassesLeaveOut) {
    EXPECT_EQ(KRCommonReqBaseParam::initWithParamDictionary(std::nullopt, "reportStasticsInfo"), nullptr);
    const auto base = KRCommonReqBaseParam::initWithParamDictionary(Dictionary{});
    const auto report = KRReportParam::initWithParamDictionary(Dictionary{}, "getVerifyCode");
    const unsigned long first = std::stoul(base->requestTaskId());
    EXPECT_EQ(report->requestTaskId(), std::to_string(first + 1));
    EXPECT_EQ(base->requestTaskId(), std::to_string(first + 2));

    test::LogCapture capture;
    EXPECT_FALSE(base->paramDictionaryInfo() || base->requestUrl());
    base->handleRespondData(Value(Dictionary{}));
    report->handleRespondData(Value(Dictionary{}));
    EXPECT_FALSE(KRReportParam::initWithParamDictionary(Dictionary{{"k", 1}}, "reportStasticsInfo")->paramDictionaryInfo());
    EXPECT_EQ(report->paramDictionaryInfo(), Dictionary{});  // only the statistics body is nil
    EXPECT_EQ(capture.lines(), (std::vector<std::string>{
                                   "[KRSDK-Common-DEBUG-KRCommonReqBaseParam-44]=>get Info should be override ..",
                                   "[KRSDK-Common-DEBUG-KRCommonReqBaseParam-49]=>get url should be override ..",
                                   "[KRSDK-Common-DEBUG-KRCommonReqBaseParam-56]=>handle data should be override ..",
                                   "[KRSDK-Common-DEBUG-KRReportParam-34]=>======== (getVerifyCode) ========",
                                   "[KRSDK-Common-ERROR-KRReportParam-25]=>reqeust typestrying is:reportStasticsInfo",
                                   "[KRSDK-Common-ERROR-KRReportParam-25]=>reqeust typestrying is:getVerifyCode"}));
}

TEST(KRReportParam, UrlsFollowTheAccountOriginAtEachCall) {
    const std::pair<std::optional<std::string>, std::string> rows[] = {
        {"reportStasticsInfo", "/loginstat"}, {"reportUIActionInfo", "/kruserstat"},
        {"reportStatisticsInfo", ""}, {std::nullopt, ""}};  // spelled correctly it is some other type
    for (const auto& [type, path] : rows) {
        const auto param = KRReportParam::initWithParamDictionary(Dictionary{}, type);
        for (const std::string host : {"first.test", "127.0.0.1:8443"}) {
            KIHostService::service().updateHostServers(Value(Dictionary{{"accountHost", host}}));
            EXPECT_EQ(param->requestUrl(), "https://" + host + path);
        }
    }
}

}  // namespace
}  // namespace krcommon

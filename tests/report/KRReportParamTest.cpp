#include <krcommon/config/KIHostService.h>
#include <krcommon/report/KRReportParam.h>

#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include <string>

namespace krcommon {
namespace {

using platform::Dictionary;
using platform::Value;
using test::LogCapture;

TEST(KRCommonReqBaseParam, AParameterObjectNeedsADictionary) {
    EXPECT_EQ(KRCommonReqBaseParam::initWithParamDictionary(std::nullopt, "reportStasticsInfo"), nullptr);
    auto param = KRCommonReqBaseParam::initWithParamDictionary(Dictionary{}, "t");
    ASSERT_NE(param, nullptr);
    EXPECT_TRUE(param->paramDicInfo()->empty());
    EXPECT_EQ(param->typeStr(), "t");
    auto untyped = KRReportParam::initWithParamDictionary(Dictionary{{"k", 1}});
    ASSERT_NE(untyped, nullptr);
    EXPECT_EQ(untyped->typeStr(), std::nullopt);
    EXPECT_EQ((*untyped->paramDicInfo())["k"], Value(1));
}

TEST(KRCommonReqBaseParam, TaskIdentifiersCountUpAcrossInstancesAndSubclasses) {
    auto base = KRCommonReqBaseParam::initWithParamDictionary(Dictionary{});
    auto report = KRReportParam::initWithParamDictionary(Dictionary{});
    const unsigned long first = std::stoul(base->requestTaskId());
    EXPECT_GE(first, 1u);
    EXPECT_EQ(report->requestTaskId(), std::to_string(first + 1));
    EXPECT_EQ(base->requestTaskId(), std::to_string(first + 2));
}

TEST(KRCommonReqBaseParam, UnoverriddenOperationsLogAndAnswerNothing) {
    LogCapture capture;
    auto param = KRCommonReqBaseParam::initWithParamDictionary(Dictionary{{"a", "b"}}, "any");
    EXPECT_EQ(param->paramDictionaryInfo(), std::nullopt);
    EXPECT_EQ(param->requestUrl(), std::nullopt);
    param->handleRespondData(Value(Dictionary{}));
    EXPECT_EQ(capture.lines(), (std::vector<std::string>{
                                   "[KRSDK-Common-DEBUG-KRCommonReqBaseParam-44]=>get Info should be override ..",
                                   "[KRSDK-Common-DEBUG-KRCommonReqBaseParam-49]=>get url should be override ..",
                                   "[KRSDK-Common-DEBUG-KRCommonReqBaseParam-56]=>handle data should be override ..",
                               }));
}

struct UrlRow {
    std::optional<std::string> type;
    std::string path;
};

class KRReportParamUrl : public ::testing::TestWithParam<UrlRow> {};

TEST_P(KRReportParamUrl, FollowsTheMovedAccountOriginAtEachCall) {
    auto param = KRReportParam::initWithParamDictionary(Dictionary{}, GetParam().type);
    KIHostService::service().updateHostServers(Value(Dictionary{{"accountHost", "first.test"}}));
    EXPECT_EQ(param->requestUrl(), "https://first.test" + GetParam().path);
    KIHostService::service().updateHostServers(Value(Dictionary{{"accountHost", "127.0.0.1:8443"}}));
    EXPECT_EQ(param->requestUrl(), "https://127.0.0.1:8443" + GetParam().path);
}

INSTANTIATE_TEST_SUITE_P(Types, KRReportParamUrl,
                         ::testing::Values(UrlRow{"reportStasticsInfo", "/loginstat"},
                                           UrlRow{"reportUIActionInfo", "/kruserstat"},
                                           // Spelled correctly it is some other type: the bare origin.
                                           UrlRow{"reportStatisticsInfo", ""}, UrlRow{std::nullopt, ""}));

TEST(KRReportParam, BodyIsNilOnlyForTheStatisticsType) {
    LogCapture capture;
    auto statistics = KRReportParam::initWithParamDictionary(Dictionary{{"k", "v"}}, "reportStasticsInfo");
    auto action = KRReportParam::initWithParamDictionary(Dictionary{{"k", "v"}}, "reportUIActionInfo");
    EXPECT_EQ(statistics->paramDictionaryInfo(), std::nullopt);
    const auto body = action->paramDictionaryInfo();
    ASSERT_TRUE(body.has_value());
    EXPECT_TRUE(body->empty());
    EXPECT_TRUE(capture.contains("[KRSDK-Common-ERROR-KRReportParam-25]=>reqeust typestrying is:reportStasticsInfo"));
    EXPECT_TRUE(capture.contains("[KRSDK-Common-ERROR-KRReportParam-25]=>reqeust typestrying is:reportUIActionInfo"));
}

TEST(KRReportParam, AnswersAreTracedAndFinishBlocksNeverCalled) {
    LogCapture capture;
    auto param = KRReportParam::initWithParamDictionary(Dictionary{}, "getVerifyCode");
    param->handleRespondData(Value(Dictionary{{"code", 0}}));
    EXPECT_TRUE(capture.contains("[KRSDK-Common-DEBUG-KRReportParam-34]=>======== (getVerifyCode) ========"));
    int calls = 0;
    auto finish = [&](const Value&, const std::shared_ptr<platform::Error>&) { ++calls; };
    param->succWithTask(nullptr, Value(Dictionary{}), finish);
    param->failWithTask(nullptr, Value(), platform::Error::make("d", 1), finish);
    EXPECT_EQ(calls, 0);
}

}  // namespace
}  // namespace krcommon

// The library as the release configuration builds it: the logger's build-time
// debug switch is off, so the library's own traces (level 1) and failures
// (level 2) follow the host's enableDebugLog. The call sites are the library's.
#include <krcommon/errors/KRSDKLogger.h>
#include <krcommon/http/KRRequestSerialization.h>
#include <krcommon/report/KRReportParam.h>

#include "support/LogCapture.h"

#include <gtest/gtest.h>

using namespace krcommon;

TEST(ReleaseLogging, TheLibrarysTracesAndFailuresFollowTheHostsSwitch) {
    ASSERT_FALSE(KRSDKLogger::buildDebugSwitch());
    test::LogCapture capture;
    auto param = KRReportParam::initWithParamDictionary(platform::Dictionary{}, KRReportParam::reportStasticsInfo);
    auto traceAndFail = [&] {
        param->handleRespondData(platform::Value());                                     // level 1
        EXPECT_FALSE(KRQueryStringFromParameters(platform::Dictionary{{"count", 1}}));  // level 2
    };
    KRSDKLogger::enableDebugLog(false);
    traceAndFail();
    EXPECT_EQ(capture.lines(), std::vector<std::string>{});
    KRSDKLogger::enableDebugLog(true);
    traceAndFail();
    EXPECT_EQ(capture.count("[KRSDK-Common-DEBUG-KRReportParam-"), 1u);
    EXPECT_EQ(capture.count("[KRSDK-Common-ERROR-KRRequestSerialization-"), 1u);
    EXPECT_EQ(capture.lines().size(), 2u);
}

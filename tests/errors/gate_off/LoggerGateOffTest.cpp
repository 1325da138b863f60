// A logger built with the build-time debug switch off: the run-time switch and the SERIOUS level decide.
#include <krcommon/errors/KRSDKLogger.h>

#include "support/LogCapture.h"

#include <gtest/gtest.h>

using krcommon::KRSDKLogger;

TEST(KRSDKLoggerGateOff, DebugModelAndSeriousLevelDecide) {
    ASSERT_FALSE(KRSDKLogger::buildDebugSwitch());
    krcommon::test::LogCapture capture;
    KRSDKLogger::log("F", "f", 1, "Common", 1, "on by default");
    KRSDKLogger::enableDebugLog(false);
    for (const std::int32_t level : {0, 1, 2, 3, 4, -1}) KRSDKLogger::log("F", "f", 2, "Common", level, "%d", level);
    KRSDKLogger::enableDebugLog(true);
    KRSDKLogger::log("F", "f", 4, "Common", 2, "back on");
    EXPECT_EQ(capture.lines(), (std::vector<std::string>{"[KRSDK-Common-DEBUG-F-1]=>on by default",
                                                         "[KRSDK-Common-SERIOUS-F-2]=>3",
                                                         "[KRSDK-Common-ERROR-F-4]=>back on"}));
}

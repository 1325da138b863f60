// The SDK logger's line format, its gate and lock, and the manager's second logging path.
#include <krcommon/errors/KRSDKLogger.h>
#include <krcommon/http/KRSDKMemberHttpManager.h>

#include "support/LogCapture.h"

#include <gtest/gtest.h>

using krcommon::KRSDKLogger;
using krcommon::KRSDKMemberHttpManager;
using namespace krcommon::platform;

namespace {

struct ChattyObject : Object {  // its description logs again, under the same recursive lock
    std::string description() const override {
        KRSDKLogger::log("Inner", "f", 1, "Common", 1, "inside");
        return "chatty";
    }
};

TEST(KRSDKLogger, LineCarriesPrefixLabelFileLineAndMessage) {
    krcommon::test::LogCapture capture;
    for (const std::int32_t level : {0, 1, 2, 3, 4, -1}) KRSDKLogger::log("F", "func", 10, "Common", level, "M");
    KRSDKLogger::enableDebugLog(false);  // the build-time switch, on by default, still writes
    KRSDKLogger::log("F", "f", 1, std::nullopt, 1, "x=%@ n=%ld", Value("a b"), 42L);
    KRSDKLogger::enableDebugLog(true);
    KRSDKLogger::log("F", "f", 2, "P", 1, Value(Dictionary{{"k", "v"}}));  // a format that is no string
    const auto line = __LINE__ + 1;
    KRSDK_LOG("Common", 2, "%@", Value());
    KRSDKLogger::log("Outer", "f", 3, "Common", 1, "%@", std::make_shared<ChattyObject>());
    EXPECT_EQ(capture.lines(), (std::vector<std::string>{
                                   "[KRSDK-Common-DEBUG-F-10]=>M", "[KRSDK-Common-DEBUG-F-10]=>M",
                                   "[KRSDK-Common-ERROR-F-10]=>M", "[KRSDK-Common-SERIOUS-F-10]=>M",
                                   "[KRSDK-Common--F-10]=>M", "[KRSDK-Common--F-10]=>M",
                                   "[KRSDK--DEBUG-F-1]=>x=a b n=42",
                                   "[KRSDK-P-DEBUG-F-2]=>{\n    k = v;\n}",
                                   "[KRSDK-Common-ERROR-KRSDKLoggerTest-" + std::to_string(line) + "]=>(null)",
                                   "[KRSDK-Common-DEBUG-Inner-1]=>inside", "[KRSDK-Common-DEBUG-Outer-3]=>chatty"}));
}

TEST(CommonSDKLog, SwitchesSuppressTheirTypeOnly) {
    krcommon::test::LogCapture capture;
    for (const auto& [error, debug] : {std::pair{1, 0}, {0, 3}}) {
        KRSDKMemberHttpManager::setDisabelErrr(error, debug);
        for (const std::int64_t type : {0, 1, 2, -5})
            KRSDKMemberHttpManager::logFromFile("F", "f", 9, type, "t%ld", type);
    }
    KRSDKMemberHttpManager::setDisabelErrr(0, 0);
    const std::string d = "[CommonSDK-DEBUG-F]=>t", e = "[CommonSDK-ERROR-F]=>t";
    EXPECT_EQ(capture.lines(), (std::vector<std::string>{d + "0", e + "2", e + "-5", e + "1", e + "2", e + "-5"}));
}

}  // namespace

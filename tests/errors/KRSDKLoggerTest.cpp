#include <krcommon/errors/KRSDKLogger.h>
#include <krcommon/http/KRSDKMemberHttpManager.h>

#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include <thread>

using krcommon::KRSDKLogger;
using krcommon::KRSDKMemberHttpManager;
using krcommon::platform::Dictionary;
using krcommon::platform::Value;
using krcommon::test::LogCapture;

namespace {

struct LevelRow {
    std::int32_t level;
    const char* line;
};

class LoggerLevels : public ::testing::TestWithParam<LevelRow> {};

TEST_P(LoggerLevels, LineCarriesPrefixLabelFileLineAndMessage) {
    LogCapture capture;
    KRSDKLogger::log("F", "func", 10, "Common", GetParam().level, "M");
    EXPECT_EQ(capture.lines(), std::vector<std::string>{GetParam().line});
}

INSTANTIATE_TEST_SUITE_P(EveryLabel, LoggerLevels,
                         ::testing::Values(LevelRow{0, "[KRSDK-Common-DEBUG-F-10]=>M"},
                                           LevelRow{1, "[KRSDK-Common-DEBUG-F-10]=>M"},
                                           LevelRow{2, "[KRSDK-Common-ERROR-F-10]=>M"},
                                           LevelRow{3, "[KRSDK-Common-SERIOUS-F-10]=>M"},
                                           LevelRow{4, "[KRSDK-Common--F-10]=>M"},
                                           LevelRow{-1, "[KRSDK-Common--F-10]=>M"}));

TEST(KRSDKLogger, FormatsArgumentsAndTreatsNilPrefixAndObjectFormats) {
    LogCapture capture;
    KRSDKLogger::log("KRSDKResponseHandler", "f", 120, "Common", 2, "recceiveData is nil");
    KRSDKLogger::log("F", "f", 1, std::nullopt, 1, "x=%@ n=%ld", Value("a b"), 42L);
    KRSDKLogger::log("F", "f", 2, "P", 1, Value(Dictionary{{"k", "v"}}));
    KRSDKLogger::log("F", "f", 3, "P", 1, Value());
    EXPECT_EQ(capture.lines(), (std::vector<std::string>{
                                   "[KRSDK-Common-ERROR-KRSDKResponseHandler-120]=>recceiveData is nil",
                                   "[KRSDK--DEBUG-F-1]=>x=a b n=42",
                                   "[KRSDK-P-DEBUG-F-2]=>{\n    k = v;\n}",
                                   "[KRSDK-P-DEBUG-F-3]=>(null)",
                               }));
}

TEST(KRSDKLogger, MacroLogsTheSourceBaseNameWithoutFoldersOrExtension) {
    static_assert(krcommon::detail::sourceBaseName("/a/b/KRSDKResponseHandler.cpp") == "KRSDKResponseHandler");
    static_assert(krcommon::detail::sourceBaseName("Plain") == "Plain");
    static_assert(krcommon::detail::sourceBaseName("dir/.hidden") == ".hidden");
    LogCapture capture;
    const auto line = __LINE__ + 1;
    KRSDK_LOG("Common", 1, "value %d", 5);
    EXPECT_EQ(capture.lines(),
              std::vector<std::string>{"[KRSDK-Common-DEBUG-KRSDKLoggerTest-" + std::to_string(line) + "]=>value 5"});
}

TEST(KRSDKLogger, BuildSwitchOnWritesEvenWithDebugModelOff) {
    ASSERT_TRUE(KRSDKLogger::buildDebugSwitch()) << "the default build keeps the debug switch on";
    LogCapture capture;
    KRSDKLogger::enableDebugLog(false);
    KRSDKLogger::log("F", "f", 1, "Common", 1, "still written");
    KRSDKLogger::enableDebugLog(true);
    EXPECT_EQ(capture.lines(), std::vector<std::string>{"[KRSDK-Common-DEBUG-F-1]=>still written"});
    EXPECT_TRUE(KRSDKLogger::instance().isDebugModel());
    EXPECT_EQ(KRSDKLogger::instance().level(), 0);
}

// A description that logs again runs under the same recursive lock.
struct ChattyObject : krcommon::platform::Object {
    std::string description() const override {
        KRSDKLogger::log("Inner", "f", 1, "Common", 1, "inside");
        return "chatty";
    }
};

TEST(KRSDKLogger, DescriptionThatLogsDoesNotDeadlock) {
    LogCapture capture;
    KRSDKLogger::log("Outer", "f", 2, "Common", 1, "%@", std::make_shared<ChattyObject>());
    EXPECT_EQ(capture.lines(), (std::vector<std::string>{"[KRSDK-Common-DEBUG-Inner-1]=>inside",
                                                         "[KRSDK-Common-DEBUG-Outer-2]=>chatty"}));
}

TEST(KRSDKLogger, TwoThreadsNeverInterleave) {
    LogCapture capture;
    constexpr int kLines = 2000;
    const std::string a(300, 'a'), b(300, 'b');
    auto writer = [&](const std::string& payload, const char* file) {
        for (int i = 0; i < kLines; ++i) KRSDKLogger::log(file, "f", static_cast<std::uint64_t>(i), "T", 1, "%@", payload);
    };
    std::thread t1(writer, std::cref(a), "A"), t2(writer, std::cref(b), "B");
    t1.join();
    t2.join();
    const auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 2u * kLines);
    int nextA = 0, nextB = 0;
    for (const auto& line : lines) {
        if (line.rfind("[KRSDK-T-DEBUG-A-", 0) == 0) {
            EXPECT_EQ(line, "[KRSDK-T-DEBUG-A-" + std::to_string(nextA++) + "]=>" + a);
        } else {
            EXPECT_EQ(line, "[KRSDK-T-DEBUG-B-" + std::to_string(nextB++) + "]=>" + b);
        }
    }
    EXPECT_EQ(nextA, kLines);
    EXPECT_EQ(nextB, kLines);
}

TEST(CommonSDKLog, SwitchesSuppressTheirTypeOnly) {
    LogCapture capture;
    KRSDKMemberHttpManager::setDisabelErrr(1, 0);
    KRSDKMemberHttpManager::logFromFile("F", "f", 9, 1, "error line");
    KRSDKMemberHttpManager::logFromFile("F", "f", 9, 0, "debug %d", 1);
    KRSDKMemberHttpManager::logFromFile("F", "f", 9, 2, "type two");
    KRSDKMemberHttpManager::logFromFile("F", "f", 9, -5, Value(7));
    KRSDKMemberHttpManager::setDisabelErrr(0, 3);
    KRSDKMemberHttpManager::logFromFile("F", "f", 9, 0, "debug dropped");
    KRSDKMemberHttpManager::logFromFile("F", "f", 9, 1, "error kept");
    KRSDKMemberHttpManager::setDisabelErrr(0, 0);
    EXPECT_EQ(capture.lines(), (std::vector<std::string>{
                                   "[CommonSDK-DEBUG-F]=>debug 1",
                                   "[CommonSDK-ERROR-F]=>type two",
                                   "[CommonSDK-ERROR-F]=>7",
                                   "[CommonSDK-ERROR-F]=>error kept",
                               }));
}

}  // namespace

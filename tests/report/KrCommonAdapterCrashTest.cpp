// The queue file under SIGKILL: a child reports records in a loop and is killed
// at random moments; every queue file left behind must read as whole records.
#include <krcommon/platform/io/FileManager.h>
#include <krcommon/platform/io/PropertyList.h>

#include "report/child/CrashRecord.h"
#include "support/TempAppHome.h"
#include "support/TestServer.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <random>
#include <thread>

extern char** environ;

namespace krcommon {
namespace {

using Clock = std::chrono::steady_clock;

TEST(KrCommonAdapterCrash, EverySurvivingQueueFileHoldsWholeRecords) {
    test::TempAppHome home;
    const std::string queue = home.library() + "/kr_sdks_kvstorage/statisticsInfoList";
    std::string program = KRCOMMON_REPORT_CRASH_CHILD, homeArg = home.path(), port = std::to_string(test::closedPort());
    char* argv[] = {program.data(), homeArg.data(), port.data(), nullptr};
    const auto exists = [&] { return platform::FileManager::fileExistsAtPath(queue); };
    // Runs a child until `done`, kills it, and answers how long it ran.
    const auto killWhen = [&](const std::function<bool(Clock::duration)>& done) {
        pid_t pid = 0;
        EXPECT_EQ(::posix_spawn(&pid, program.c_str(), nullptr, nullptr, argv, environ), 0);
        const auto start = Clock::now();
        while (!done(Clock::now() - start)) std::this_thread::sleep_for(std::chrono::microseconds(100));
        ::kill(pid, SIGKILL);
        int status = 0;
        EXPECT_TRUE(::waitpid(pid, &status, 0) == pid && WIFSIGNALED(status)) << "the child ended by itself";
        return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start).count();
    };
    // Kills fall from about when a child has written its first queue (later under the sanitizers) to well after.
    const long startup = killWhen([&](Clock::duration ran) { return exists() || ran > std::chrono::seconds(30); });
    ASSERT_TRUE(exists()) << "the child never wrote its queue";
    std::mt19937 random(static_cast<unsigned>(startup));
    std::uniform_int_distribution<long> delay(startup / 2, startup + 40'000);
    int filesChecked = 0, mostRecords = 0;
    for (int round = 0; round < 300 && !HasFailure(); ++round) {
        const std::chrono::microseconds after(delay(random));
        killWhen([&](Clock::duration ran) { return ran >= after; });
        if (!exists()) continue;
        const auto list = platform::PropertyList::readFile(queue);
        ASSERT_TRUE(list && list->array()) << "round " << round << ": the queue file is not an array";
        for (const auto& record : *list->array()) ASSERT_TRUE(test::isWholeCrashRecord(record)) << record.description();
        mostRecords = std::max(mostRecords, static_cast<int>(list->array()->size()));
        ++filesChecked;
    }
    EXPECT_GT(filesChecked, 100);  // the kills found files to check, some of them long
    EXPECT_GE(mostRecords, 5);
}

}  // namespace
}  // namespace krcommon

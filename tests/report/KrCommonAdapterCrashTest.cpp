// The queue file under SIGKILL: a child reports records in a loop and is killed
// at random moments; every queue file left behind must read as an array of
// whole records.

#include <krcommon/platform/io/FileManager.h>
#include <krcommon/platform/io/PropertyList.h>

#include "report/child/CrashRecord.h"
#include "support/TempAppHome.h"
#include "support/TestServer.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <random>
#include <thread>

extern char** environ;

namespace krcommon {
namespace {

TEST(KrCommonAdapterCrash, EverySurvivingQueueFileHoldsWholeRecords) {
    test::TempAppHome home;
    const std::string port = std::to_string(test::closedPort());
    const std::string queuePath = home.library() + "/kr_sdks_kvstorage/statisticsInfoList";
    const auto start = static_cast<unsigned>(std::chrono::steady_clock::now().time_since_epoch().count());
    std::mt19937 random(start);
    SCOPED_TRACE("random start " + std::to_string(start));

    std::string program = KRCOMMON_REPORT_CRASH_CHILD;
    std::string homeArg = home.path();
    char* argv[] = {program.data(), homeArg.data(), const_cast<char*>(port.c_str()), nullptr};
    auto spawn = [&] {
        pid_t pid = 0;
        EXPECT_EQ(::posix_spawn(&pid, program.c_str(), nullptr, nullptr, argv, environ), 0);
        return pid;
    };

    // How long a child takes to write its first queue (much longer under the
    // sanitizers): the kills then fall from that moment on, while it writes.
    using Clock = std::chrono::steady_clock;
    const auto started = Clock::now();
    const pid_t first = spawn();
    while (!platform::FileManager::fileExistsAtPath(queuePath) && Clock::now() - started < std::chrono::seconds(30))
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    const auto startup = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - started).count();
    ::kill(first, SIGKILL);
    ::waitpid(first, nullptr, 0);
    ASSERT_TRUE(platform::FileManager::fileExistsAtPath(queuePath)) << "the child never wrote its queue";
    std::uniform_int_distribution<long> delayUs(startup / 2, startup + 40'000);

    int filesChecked = 0;
    std::size_t mostRecords = 0;
    for (int round = 0; round < 300; ++round) {
        const pid_t pid = spawn();
        std::this_thread::sleep_for(std::chrono::microseconds(delayUs(random)));
        ::kill(pid, SIGKILL);
        int status = 0;
        ASSERT_EQ(::waitpid(pid, &status, 0), pid);
        ASSERT_TRUE(WIFSIGNALED(status)) << "the child ended by itself, status " << status;

        if (!platform::FileManager::fileExistsAtPath(queuePath)) continue;
        auto list = platform::PropertyList::readFile(queuePath);
        ASSERT_TRUE(list && list->array()) << "round " << round << ": the queue file is not an array";
        for (const auto& record : *list->array())
            ASSERT_TRUE(test::isWholeCrashRecord(record)) << "round " << round << ": " << record.description();
        mostRecords = std::max(mostRecords, list->array()->size());
        ++filesChecked;
    }
    // The kills must have found files to check, some of them long.
    EXPECT_GT(filesChecked, 100);
    EXPECT_GE(mostRecords, 5u);
}

}  // namespace
}  // namespace krcommon

// Nothing of the statistics queue is lost: not the legacy records when a merge
// is killed or the disk is full, not an unreadable queue file's bytes.

#include <krcommon/platform/io/FileManager.h>
#include <krcommon/platform/io/PropertyList.h>
#include <krcommon/report/KrCommonAdapter.h>

#include "support/LogCapture.h"
#include "support/TempAppHome.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <limits>
#include <optional>
#include <random>
#include <thread>

namespace krcommon {
namespace {

using platform::Array;
using platform::Dictionary;
using platform::FileManager;
using platform::PropertyList;
using platform::Value;

Value record(std::int64_t seq, std::size_t padding = 16) {
    return Value(Dictionary{{"seq", seq}, {"pad", std::string(padding, 'p')}});
}

// The "seq" of each record in the queue file; none when it does not read as an array.
std::vector<std::int64_t> seqsIn(const std::string& path) {
    std::vector<std::int64_t> seqs;
    if (auto list = PropertyList::readFile(path); list && list->array())
        for (const Value& r : *list->array()) seqs.push_back(r["seq"].integerValue().value_or(-99));
    return seqs;
}

std::string queuePath() { return KrCommonAdapter::statisInfoFilePathName(); }

// A child merges a legacy file of two records into a queue of one large record
// and is killed at a random moment of its merge. Each round starts from hard
// links to the same two files: a merge only reads them.
TEST(KrCommonAdapterDurability, KilledLegacyMergesLoseNoLegacyRecord) {
    test::TempAppHome home;
    const std::string legacy = home.documents() + "/statisticsInfoList", queue = queuePath();
    ASSERT_TRUE(FileManager::createDirectoryAtPath(home.documents(), true));
    ASSERT_TRUE(PropertyList::writeFile(home.path() + "/legacy", Value(Array{record(1), record(2)}), true));
    ASSERT_TRUE(PropertyList::writeFile(home.path() + "/queue", Value(Array{record(0, 1 << 20)}), true));
    const std::vector<std::int64_t> merged{0, -1, 1, 2};  // stored, the child's new one, legacy

    // One merge, killed `delayUs` microseconds after it begins (never when negative).
    // Answers how long it ran when it finished, nothing when the kill cut it short.
    auto merge = [&](long delayUs) -> std::optional<long> {
        ::unlink(legacy.c_str());
        ::unlink(queue.c_str());
        EXPECT_EQ(::link((home.path() + "/legacy").c_str(), legacy.c_str()), 0);
        EXPECT_EQ(::link((home.path() + "/queue").c_str(), queue.c_str()), 0);
        int out[2];
        EXPECT_EQ(::pipe(out), 0);
        const pid_t pid = ::fork();
        if (pid == 0) {
            ::dup2(out[1], 1);
            ::dup2(::open("/dev/null", O_WRONLY), 2);  // its log lines
            ::execl(KRCOMMON_LEGACY_MERGE_CHILD, KRCOMMON_LEGACY_MERGE_CHILD, home.path().c_str(), nullptr);
            ::_exit(127);
        }
        ::close(out[1]);
        char said[2] = {};
        EXPECT_EQ(::read(out[0], said, 1), 1) << "the child did not start";  // "R"
        const auto begun = std::chrono::steady_clock::now();
        if (delayUs >= 0) {
            std::this_thread::sleep_for(std::chrono::microseconds(delayUs));
            ::kill(pid, SIGKILL);
        }
        ::waitpid(pid, nullptr, 0);
        const bool finished = ::read(out[0], said + 1, 1) == 1;  // "D"
        ::close(out[0]);
        if (!finished) return std::nullopt;
        return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - begun).count();
    };

    long length = std::numeric_limits<long>::max();
    for (int i = 0; i < 3; ++i) {  // the shortest of three, caches warm
        const auto took = merge(-1);
        ASSERT_TRUE(took);
        length = std::min(length, *took);
    }
    EXPECT_FALSE(FileManager::fileExistsAtPath(legacy));
    EXPECT_EQ(seqsIn(queue), merged);

    std::mt19937 random(static_cast<unsigned>(std::chrono::steady_clock::now().time_since_epoch().count()));
    std::uniform_int_distribution<long> delayUs(0, length);
    int interrupted = 0;
    for (int round = 0; round < 100; ++round) {
        interrupted += !merge(delayUs(random));
        ASSERT_TRUE(FileManager::fileExistsAtPath(legacy) || seqsIn(queue) == merged) << "round " << round;
    }
    RecordProperty("interrupted", interrupted);
    EXPECT_GE(interrupted, 30) << "too few kills landed inside a merge";
}

// RLIMIT_FSIZE makes the queue's write fail as a full disk would, for root too.
TEST(KrCommonAdapterDurability, AFailedQueueWriteKeepsTheLegacyFile) {
    test::TempAppHome home;
    const std::string legacy = home.documents() + "/statisticsInfoList";
    ASSERT_TRUE(FileManager::createDirectoryAtPath(home.documents(), true));
    ASSERT_TRUE(PropertyList::writeFile(legacy, Value(Array{record(1), record(2)}), true));
    test::LogCapture log;
    auto adapter = KrCommonAdapter::create();

    rlimit previous{}, small{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &previous), 0);
    small = {64 * 1024, previous.rlim_max};
    const auto oldHandler = ::signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
    adapter->reportRequestStatInfo(record(3, 256 * 1024));
    ::setrlimit(RLIMIT_FSIZE, &previous);
    ::signal(SIGXFSZ, oldHandler);

    EXPECT_TRUE(log.contains("writeToFile is fail "));
    EXPECT_EQ(seqsIn(legacy), (std::vector<std::int64_t>{1, 2}));
    adapter->reportRequestStatInfo(record(4));  // room again: the next merge takes the legacy records
    EXPECT_FALSE(FileManager::fileExistsAtPath(legacy));
    EXPECT_EQ(seqsIn(queuePath()), (std::vector<std::int64_t>{4, 1, 2}));
}

TEST(KrCommonAdapterDurability, AnUnreadableQueueFileIsMovedAsideAndNamed) {
    test::TempAppHome home;
    const std::string queue = queuePath(), aside = queue + ".unreadable";
    std::ofstream(aside) << "an older one";
    const std::string bodies[] = {"<plist><dict/></plist>", "not a property list", std::string("\0\1", 2)};
    for (const auto& body : bodies) {
        std::ofstream(queue) << body;
        test::LogCapture log;
        KrCommonAdapter::create()->reportRequestStatInfo(record(7));
        EXPECT_EQ(PropertyList::readFile(queue), Value(Array{record(7)})) << body;
        auto moved = FileManager::contentsAtPath(aside);
        EXPECT_EQ(std::string(moved->begin(), moved->end()), body);
        EXPECT_EQ(log.count(aside), 1u) << body;
    }
    // A torn copy of the file this adapter wrote last is not taken for it.
    auto adapter = KrCommonAdapter::create();
    adapter->reportRequestStatInfo(record(1));
    std::filesystem::resize_file(queue, std::filesystem::file_size(queue) / 2);
    adapter->reportRequestStatInfo(record(2));
    EXPECT_EQ(PropertyList::readFile(queue), Value(Array{record(2)}));
}

}  // namespace
}  // namespace krcommon

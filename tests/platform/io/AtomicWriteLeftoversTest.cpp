// What atomic writes leave on disk: a killed writer leaves the file as it was or
// whole, and its temporary file is cleaned up by the next write (live ones of
// other writers are not); what is written keeps carriage returns for any XML
// reader and stays private.

#include <krcommon/platform/app/SystemLog.h>
#include <krcommon/platform/io/FileManager.h>
#include <krcommon/platform/io/PropertyList.h>
#include <krcommon/platform/io/SearchPaths.h>

#include "TempFolder.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>
#include <tuple>

using namespace krcommon::platform;
using krcommon::test::TempFolder;

namespace {

mode_t modeOf(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 ? st.st_mode & 0777 : 0;
}

std::vector<std::string> temporariesIn(const std::string& folder) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        if (entry.path().extension() == ".tmp") names.push_back(entry.path().string());
    return names;
}

TEST(AtomicWriteLeftovers, KilledWritersLeaveAtMostOneAndTheNextWriteRemovesIt) {
    TempFolder tmp;
    const std::string path = tmp / "statisticsInfoList";
    const std::string bytes(256 * 1024, 'x');
    int leftoversSeen = 0;
    for (int round = 0; round < 100; ++round) {
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0)
            for (;;) FileManager::writeAtomically(path, bytes);
        std::this_thread::sleep_for(std::chrono::microseconds(round * 1777 % 4000));  // spread over 0..4 ms
        ::kill(child, SIGKILL);
        ::waitpid(child, nullptr, 0);
        const auto kept = FileManager::contentsAtPath(path);  // none yet, or the whole of one write
        ASSERT_TRUE(!kept || std::string(kept->begin(), kept->end()) == bytes) << "round " << round;
        const auto left = temporariesIn(tmp.path());
        ASSERT_LE(left.size(), 1u) << "round " << round;
        for (const auto& name : left) EXPECT_EQ(modeOf(name), 0600u) << name;
        leftoversSeen += static_cast<int>(left.size());
    }
    RecordProperty("leftovers", leftoversSeen);
    EXPECT_GT(leftoversSeen, 0) << "no kill landed inside a write";
    ASSERT_TRUE(FileManager::writeAtomically(path, std::string("done")));
    EXPECT_TRUE(temporariesIn(tmp.path()).empty());
}

// Only unlocked files named as the library names its temporaries are taken for leftovers.
TEST(AtomicWriteLeftovers, LiveTemporariesAndOtherFilesAreLeftAlone) {
    TempFolder tmp;
    const std::tuple<std::string, bool, bool> rows[] = {  // name, locked by a live writer, removed
        {".statisticsInfoList.0123456789ab.tmp", false, true}, {".other.ffffffffffff.tmp", false, true},
        {".statisticsInfoList.0123456789ac.tmp", true, false}, {".statisticsInfoList.0123456789AB.tmp", false, false},
        {".statisticsInfoList.0123456789a.tmp", false, false}, {"statisticsInfoList.0123456789ab.tmp", false, false},
        {"..0123456789ab.tmp", false, false},                  {"notes.tmp", false, false},
    };
    std::vector<int> locks;
    for (const auto& [name, locked, removed] : rows) {
        std::ofstream(tmp / name) << "bytes";
        if (!locked) continue;
        locks.push_back(::open((tmp / name).c_str(), O_RDONLY | O_CLOEXEC));
        ASSERT_EQ(::flock(locks.back(), LOCK_EX), 0);
    }
    ASSERT_TRUE(FileManager::writeAtomically(tmp / "statisticsInfoList", std::string("queue")));
    for (const auto& [name, locked, removed] : rows) EXPECT_EQ(!FileManager::fileExistsAtPath(tmp / name), removed) << name;
    for (int fd : locks) ::close(fd);
}

// The queue, its folders and the log hold private data.
TEST(AtomicWriteLeftovers, FilesAndFoldersAreTheOwnersOnlyUnderUmask022) {
    TempFolder tmp;
    const mode_t previous = ::umask(022);
    std::ofstream(tmp / "old") << "made 0644 by someone else";
    ASSERT_EQ(::chmod((tmp / "old").c_str(), 0644), 0);
    const bool wrote = FileManager::createDirectoryAtPath(tmp / "a/b", true) &&
                       FileManager::writeAtomically(tmp / "a/b/new", std::string("x")) &&
                       FileManager::writeAtomically(tmp / "old", std::string("replaced")) &&
                       FileManager::writeToFile(tmp / "a/in-place", std::string("y"), false) &&
                       FileLogSink(tmp / "a/log").isOpen();
    ::umask(previous);
    ASSERT_TRUE(wrote);
    const std::pair<std::string, mode_t> rows[] = {
        {"a", 0700}, {"a/b", 0700}, {"a/b/new", 0600}, {"old", 0600}, {"a/in-place", 0600}, {"a/log", 0600}};
    for (const auto& [name, mode] : rows) EXPECT_EQ(modeOf(tmp / name), mode) << name;
}

// XML readers turn a literal CR LF into LF; what the library writes must come back as it was.
TEST(PropertyListCarriageReturns, AreWrittenAsReferencesAndReadBack) {
    const std::string texts[] = {"line\r\nnext", "lone\rcr", "\r", "ends\r", "a&b<c>\r\n"};
    for (const auto& text : texts) {
        const Value value(Array{Dictionary{{text, text}}});
        const auto xml = PropertyList::writeXML(value);
        ASSERT_TRUE(xml);
        EXPECT_EQ(xml->find('\r'), std::string::npos) << *xml;
        EXPECT_EQ(PropertyList::parse(*xml), value) << *xml;
        const auto appended = PropertyList::appendToXMLArray(*PropertyList::writeXML(Value(Array{})), *value.array());
        EXPECT_EQ(appended, xml);
    }
}

TEST(SearchPathsBundleIdentifier, OneThatWouldNameAnotherFolderIsRefused) {
    const std::string fallback = SearchPaths::bundleIdentifier();
    krcommon::test::LogCapture log;
    const std::pair<std::string, bool> rows[] = {  // identifier, accepted
        {"com.example.app", true}, {"...", true},    {".hidden", true},  {"..", false},
        {".", false},              {"a/b", false},   {"/etc", false},    {std::string("a\0b", 3), false},
    };
    for (const auto& [identifier, accepted] : rows) {
        log.clear();
        SearchPaths::setBundleIdentifier(identifier);
        EXPECT_EQ(SearchPaths::bundleIdentifier(), accepted ? identifier : fallback) << identifier;
        EXPECT_EQ(log.lines().size(), accepted ? 0u : 1u) << identifier;
    }
    SearchPaths::setBundleIdentifier("");
}

}  // namespace

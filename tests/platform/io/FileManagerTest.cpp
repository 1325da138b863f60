#include <krcommon/platform/io/FileManager.h>

#include "TempFolder.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <thread>
#include <vector>

using namespace krcommon::platform;
using krcommon::test::TempFolder;

namespace {

std::string readText(const std::string& path) {
    auto bytes = FileManager::contentsAtPath(path);
    return bytes ? std::string(bytes->begin(), bytes->end()) : std::string("<absent>");
}

void writeText(const std::string& path, const std::string& text) { std::ofstream(path) << text; }

std::vector<std::string> namesIn(const std::string& folder) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) names.push_back(entry.path().filename());
    return names;
}

// Whether the file is exactly one of the two versions written: `size` bytes all 'A' or all 'B'.
bool isWholeVersion(const std::string& text, std::size_t size) {
    return text.size() == size && (text == std::string(size, 'A') || text == std::string(size, 'B'));
}

}  // namespace

TEST(FileManager, CreatesDirectoriesAsThePlatformDoes) {
    TempFolder tmp;
    writeText(tmp / "file", "x");
    struct Row {
        std::string path;
        bool intermediates;
        int expectedErrno;  // 0 for success
    };
    const Row rows[] = {
        {tmp / "a/b/c", true, 0},
        {tmp / "a/b/c", true, 0},  // existing directory: fine with intermediates
        {tmp / "a/b/c", false, EEXIST},
        {tmp / "x/y", false, ENOENT},
        {tmp / "a/b/d", false, 0},
        {tmp / "file", true, EEXIST},
        {tmp / "file/sub/deeper", true, ENOTDIR},
        {"", true, ENOENT},
    };
    for (const auto& row : rows) {
        std::shared_ptr<Error> error;
        const bool ok = FileManager::createDirectoryAtPath(row.path, row.intermediates, &error);
        EXPECT_EQ(ok, row.expectedErrno == 0) << row.path;
        if (row.expectedErrno == 0) {
            bool isDirectory = false;
            EXPECT_TRUE(FileManager::fileExistsAtPath(row.path, &isDirectory) && isDirectory) << row.path;
        } else {
            ASSERT_TRUE(error) << row.path;
            EXPECT_EQ(error->domain(), "NSPOSIXErrorDomain");
            EXPECT_EQ(error->code(), row.expectedErrno) << row.path;
        }
    }
}

TEST(FileManager, ExistenceFollowsLinks) {
    TempFolder tmp;
    writeText(tmp / "file", "x");
    ASSERT_EQ(::symlink((tmp / "missing").c_str(), (tmp / "dangling").c_str()), 0);
    ASSERT_EQ(::symlink(tmp.path().c_str(), (tmp / "dirlink").c_str()), 0);
    bool isDirectory = true;
    EXPECT_TRUE(FileManager::fileExistsAtPath(tmp / "file", &isDirectory));
    EXPECT_FALSE(isDirectory);
    EXPECT_TRUE(FileManager::fileExistsAtPath(tmp / "dirlink", &isDirectory));
    EXPECT_TRUE(isDirectory);
    EXPECT_FALSE(FileManager::fileExistsAtPath(tmp / "dangling"));
    EXPECT_FALSE(FileManager::fileExistsAtPath(tmp / "missing"));
}

TEST(FileManager, MoveRefusesToReplace) {
    TempFolder tmp;
    writeText(tmp / "from", "new");
    writeText(tmp / "to", "old");
    std::shared_ptr<Error> error;
    EXPECT_FALSE(FileManager::moveItemAtPath(tmp / "from", tmp / "to", &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), EEXIST);
    EXPECT_EQ(readText(tmp / "from"), "new");
    EXPECT_EQ(readText(tmp / "to"), "old");

    EXPECT_TRUE(FileManager::moveItemAtPath(tmp / "from", tmp / "moved", &error));
    EXPECT_EQ(readText(tmp / "moved"), "new");
    EXPECT_FALSE(FileManager::fileExistsAtPath(tmp / "from"));
    EXPECT_FALSE(FileManager::moveItemAtPath(tmp / "from", tmp / "again", &error));
    EXPECT_EQ(error->code(), ENOENT);
}

TEST(FileManager, MovesTreesAcrossFileSystems) {
    TempFolder tmp;
    struct stat a {}, b {};
    if (::stat("/dev/shm", &b) != 0 || ::stat(tmp.path().c_str(), &a) != 0 || a.st_dev == b.st_dev)
        GTEST_SKIP() << "no second file system at /dev/shm";
    ASSERT_TRUE(FileManager::createDirectoryAtPath(tmp / "tree/sub", true));
    writeText(tmp / "tree/sub/leaf", "leaf");
    const std::string target = "/dev/shm/krcommon-io-move-" + std::to_string(::getpid());
    ASSERT_TRUE(FileManager::moveItemAtPath(tmp / "tree", target));
    EXPECT_EQ(readText(target + "/sub/leaf"), "leaf");
    EXPECT_FALSE(FileManager::fileExistsAtPath(tmp / "tree"));
    EXPECT_TRUE(FileManager::removeItemAtPath(target));
}

TEST(FileManager, RemovesTreesButNotLinkTargets) {
    TempFolder tmp;
    ASSERT_TRUE(FileManager::createDirectoryAtPath(tmp / "keep", false));
    writeText(tmp / "keep/precious", "p");
    ASSERT_TRUE(FileManager::createDirectoryAtPath(tmp / "tree/a/b", true));
    writeText(tmp / "tree/a/b/f", "f");
    ASSERT_EQ(::symlink((tmp / "keep").c_str(), (tmp / "tree/a/link").c_str()), 0);

    EXPECT_TRUE(FileManager::removeItemAtPath(tmp / "tree"));
    EXPECT_FALSE(FileManager::fileExistsAtPath(tmp / "tree"));
    EXPECT_EQ(readText(tmp / "keep/precious"), "p");

    std::shared_ptr<Error> error;
    EXPECT_FALSE(FileManager::removeItemAtPath(tmp / "tree", &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), ENOENT);
    EXPECT_EQ(*error->userInfo()["NSFilePath"].string(), tmp / "tree");
}

TEST(FileManager, ReadsWholeFilesWhateverTheirReportedSize) {
    TempFolder tmp;
    std::string big(3 * 1024 * 1024 + 7, '\0');
    for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>(i * 131);
    ASSERT_TRUE(FileManager::writeAtomically(tmp / "big", big));
    EXPECT_EQ(readText(tmp / "big"), big);
    ASSERT_TRUE(FileManager::writeAtomically(tmp / "empty", std::string_view()));
    EXPECT_EQ(readText(tmp / "empty"), "");
    // /proc reports a size of 0 for files that are not empty.
    EXPECT_NE(readText("/proc/self/status").find("Pid:"), std::string::npos);

    const std::pair<std::string, int> failures[] = {{tmp / "missing", ENOENT}, {tmp.path(), EISDIR}};
    for (const auto& [path, code] : failures) {
        std::shared_ptr<Error> error;
        EXPECT_FALSE(FileManager::contentsAtPath(path, &error)) << path;
        ASSERT_TRUE(error) << path;
        EXPECT_EQ(error->code(), code) << path;
    }
}

TEST(FileManager, WritesReplaceAndLeaveNoTemporaryFiles) {
    TempFolder tmp;
    for (bool atomically : {true, false}) {
        const std::string path = tmp / (atomically ? "atomic" : "in-place");
        ASSERT_TRUE(FileManager::writeToFile(path, std::string("first, and longer"), atomically));
        ASSERT_TRUE(FileManager::writeToFile(path, Data{'s', 'e', 'c', 'o', 'n', 'd'}, atomically));
        EXPECT_EQ(readText(path), "second");
    }
    EXPECT_EQ(namesIn(tmp.path()).size(), 2u);
}

TEST(FileManager, FailedWritesReportAndKeepTheOldFile) {
    TempFolder tmp;
    writeText(tmp / "plain-file", "x");
    ASSERT_TRUE(FileManager::createDirectoryAtPath(tmp / "locked", false));
    writeText(tmp / "locked/target", "old");
    ASSERT_EQ(::chmod((tmp / "locked").c_str(), 0555), 0);
    // Root writes into read-only folders anyway, so that row runs for other users
    // only; a path under a plain file fails for everyone.
    const bool chmodBinds = ::access((tmp / "locked").c_str(), W_OK) != 0;

    struct Row {
        std::string path;
        int code;
    };
    std::vector<Row> rows = {
        {tmp / "plain-file/target", ENOTDIR},
        {tmp / "no-folder/target", ENOENT},
        {tmp / "dir-as-target/", EISDIR},
    };
    if (chmodBinds) rows.push_back({tmp / "locked/target", EACCES});
    for (const auto& row : rows) {
        for (bool atomically : {true, false}) {
            std::shared_ptr<Error> error;
            EXPECT_FALSE(FileManager::writeToFile(row.path, std::string("new"), atomically, &error)) << row.path;
            ASSERT_TRUE(error) << row.path;
            EXPECT_EQ(error->domain(), "NSPOSIXErrorDomain");
            EXPECT_EQ(error->code(), row.code) << row.path;
            EXPECT_FALSE(error->localizedDescription().empty());
        }
    }
    EXPECT_EQ(readText(tmp / "locked/target"), "old");
    ::chmod((tmp / "locked").c_str(), 0755);
    EXPECT_EQ(namesIn(tmp / "locked"), std::vector<std::string>{"target"});
}

// A writer killed at random moments must leave one whole version behind, never
// a mix, a truncated file or nothing.
TEST(FileManager, AtomicWritesSurviveBeingKilled) {
    TempFolder tmp;
    const std::string path = tmp / "state";
    constexpr std::size_t size = 64 * 1024;
    const std::string versions[2] = {std::string(size, 'A'), std::string(size, 'B')};
    ASSERT_TRUE(FileManager::writeAtomically(path, versions[0]));

    std::mt19937 random(std::random_device{}());
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(6);
    int rounds = 0;
    for (; rounds < 150 && std::chrono::steady_clock::now() < deadline; ++rounds) {
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            for (unsigned i = 0;; ++i) FileManager::writeAtomically(path, versions[i % 2]);
        }
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 3000));
        ::kill(child, SIGKILL);
        int status = 0;
        ::waitpid(child, &status, 0);
        ASSERT_TRUE(isWholeVersion(readText(path), size)) << "round " << rounds;
    }
    EXPECT_GE(rounds, 50);
}

TEST(FileManager, ConcurrentAtomicWritersNeverTearAFile) {
    TempFolder tmp;
    const std::string path = tmp / "shared";
    constexpr std::size_t size = 16 * 1024;
    ASSERT_TRUE(FileManager::writeAtomically(path, std::string(size, 'A')));
    std::atomic<bool> stop{false};
    std::atomic<int> failures{0};
    std::vector<std::thread> writers;
    for (char c : {'A', 'B'}) {
        writers.emplace_back([&, c] {
            const std::string text(size, c);
            for (int i = 0; i < 40; ++i)
                if (!FileManager::writeAtomically(path, text)) ++failures;
        });
    }
    std::thread reader([&] {
        while (!stop)
            if (!isWholeVersion(readText(path), size)) ++failures;
    });
    for (auto& w : writers) w.join();
    stop = true;
    reader.join();
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(namesIn(tmp.path()), std::vector<std::string>{"shared"});
}

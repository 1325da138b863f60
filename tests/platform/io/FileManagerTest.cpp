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

void expectPOSIXError(const std::shared_ptr<Error>& error, int code, const std::string& what) {
    ASSERT_TRUE(error) << what;
    EXPECT_EQ(error->domain(), "NSPOSIXErrorDomain") << what;
    EXPECT_EQ(error->code(), code) << what;
}

// Whether the file is exactly one of the two versions written: `size` bytes all 'A' or all 'B'.
bool isWholeVersion(const std::string& text, std::size_t size) {
    return text == std::string(size, 'A') || text == std::string(size, 'B');
}

}  // namespace

TEST(FileManager, CreatesDirectoriesAndTestsExistence) {
    TempFolder tmp;
    writeText(tmp / "file", "x");
    const std::tuple<std::string, bool, int> rows[] = {  // path, with intermediates, errno (0: success)
        {tmp / "a/b/c", true, 0},       {tmp / "a/b/c", true, 0},   {tmp / "a/b/c", false, EEXIST},
        {tmp / "x/y", false, ENOENT},   {tmp / "a/b/d", false, 0},  {tmp / "file", true, EEXIST},
        {tmp / "file/sub/deeper", true, ENOTDIR},                   {"", true, ENOENT},
    };
    for (const auto& [path, intermediates, code] : rows) {
        std::shared_ptr<Error> error;
        EXPECT_EQ(FileManager::createDirectoryAtPath(path, intermediates, &error), code == 0) << path;
        bool isDirectory = false;
        if (code == 0) EXPECT_TRUE(FileManager::fileExistsAtPath(path, &isDirectory) && isDirectory) << path;
        else expectPOSIXError(error, code, path);
    }
    // Existence follows links; a dangling one is absent.
    ASSERT_EQ(::symlink((tmp / "missing").c_str(), (tmp / "dangling").c_str()), 0);
    ASSERT_EQ(::symlink(tmp.path().c_str(), (tmp / "dirlink").c_str()), 0);
    const std::tuple<std::string, bool, bool> links[] = {
        {"file", true, false}, {"dirlink", true, true}, {"dangling", false, false}, {"missing", false, false}};
    for (const auto& [name, exists, directory] : links) {
        bool isDirectory = !directory;
        EXPECT_EQ(FileManager::fileExistsAtPath(tmp / name, &isDirectory), exists) << name;
        EXPECT_TRUE(!exists || isDirectory == directory) << name;
    }
}

TEST(FileManager, MovesWithoutReplacingAndRemovesTreesButNotLinkTargets) {
    TempFolder tmp;
    writeText(tmp / "from", "new");
    writeText(tmp / "to", "old");
    std::shared_ptr<Error> error;
    EXPECT_FALSE(FileManager::moveItemAtPath(tmp / "from", tmp / "to", &error));
    expectPOSIXError(error, EEXIST, "onto existing");
    EXPECT_EQ(readText(tmp / "from") + readText(tmp / "to"), "newold");
    ASSERT_TRUE(FileManager::createDirectoryAtPath(tmp / "tree/a/b", true));
    EXPECT_TRUE(FileManager::moveItemAtPath(tmp / "from", tmp / "tree/a/b/f", &error));
    EXPECT_EQ(readText(tmp / "tree/a/b/f"), "new");
    EXPECT_FALSE(FileManager::moveItemAtPath(tmp / "from", tmp / "again", &error));
    expectPOSIXError(error, ENOENT, "moved away");

    ASSERT_EQ(::symlink(tmp.path().c_str(), (tmp / "tree/a/link").c_str()), 0);  // must not be followed
    EXPECT_TRUE(FileManager::removeItemAtPath(tmp / "tree"));
    EXPECT_FALSE(FileManager::fileExistsAtPath(tmp / "tree"));
    EXPECT_EQ(readText(tmp / "to"), "old");
    EXPECT_FALSE(FileManager::removeItemAtPath(tmp / "tree", &error));
    expectPOSIXError(error, ENOENT, "removed twice");
    EXPECT_EQ(*error->userInfo()["NSFilePath"].string(), tmp / "tree");
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

TEST(FileManager, ReadsWholeFilesWhateverTheirReportedSize) {
    TempFolder tmp;
    std::string big;
    for (std::size_t i = 0; i < 3 * 1024 * 1024 + 7; ++i) big += static_cast<char>(i * 131);
    ASSERT_TRUE(FileManager::writeAtomically(tmp / "big", big));
    EXPECT_EQ(readText(tmp / "big"), big);
    ASSERT_TRUE(FileManager::writeAtomically(tmp / "empty", std::string_view()) && readText(tmp / "empty").empty());
    EXPECT_NE(readText("/proc/self/status").find("Pid:"), std::string::npos);  // reported size 0
    for (const auto& [path, code] : {std::pair{tmp / "missing", ENOENT}, std::pair{tmp.path(), EISDIR}}) {
        std::shared_ptr<Error> error;
        EXPECT_FALSE(FileManager::contentsAtPath(path, &error)) << path;
        expectPOSIXError(error, code, path);
    }
}

TEST(FileManager, WritesReplaceOrFailKeepingTheOldFileAndNoLeftovers) {
    TempFolder tmp;
    for (bool atomically : {true, false}) {
        const std::string path = tmp / (atomically ? "atomic" : "in-place");
        ASSERT_TRUE(FileManager::writeToFile(path, std::string("first, and longer"), atomically));
        ASSERT_TRUE(FileManager::writeToFile(path, Data{'s', 'e', 'c', 'o', 'n', 'd'}, atomically));
        EXPECT_EQ(readText(path), "second");
    }
    EXPECT_EQ(namesIn(tmp.path()).size(), 2u);

    writeText(tmp / "plain-file", "x");
    ASSERT_TRUE(FileManager::createDirectoryAtPath(tmp / "locked", false));
    writeText(tmp / "locked/target", "old");
    ASSERT_EQ(::chmod((tmp / "locked").c_str(), 0555), 0);
    std::vector<std::pair<std::string, int>> rows = {
        {tmp / "plain-file/target", ENOTDIR}, {tmp / "no-folder/target", ENOENT}, {tmp / "dir-as-target/", EISDIR}};
    // Root writes into read-only folders anyway; a path under a plain file fails for everyone.
    if (::access((tmp / "locked").c_str(), W_OK) != 0) rows.push_back({tmp / "locked/target", EACCES});
    for (const auto& [path, code] : rows) {
        for (bool atomically : {true, false}) {
            std::shared_ptr<Error> error;
            EXPECT_FALSE(FileManager::writeToFile(path, std::string("new"), atomically, &error)) << path;
            expectPOSIXError(error, code, path);
        }
    }
    EXPECT_EQ(readText(tmp / "locked/target"), "old");
    ::chmod((tmp / "locked").c_str(), 0755);
    EXPECT_EQ(namesIn(tmp / "locked"), std::vector<std::string>{"target"});
}

// A writer killed at any moment must leave one whole version behind, never a mix, a truncated file or nothing.
TEST(FileManager, AtomicWritesSurviveBeingKilled) {
    TempFolder tmp;
    const std::string path = tmp / "state";
    constexpr std::size_t size = 64 * 1024;
    const std::string versions[2] = {std::string(size, 'A'), std::string(size, 'B')};
    ASSERT_TRUE(FileManager::writeAtomically(path, versions[0]));
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(6);
    int rounds = 0;
    for (; rounds < 150 && std::chrono::steady_clock::now() < deadline; ++rounds) {
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0)
            for (unsigned i = 0;; ++i) FileManager::writeAtomically(path, versions[i % 2]);
        std::this_thread::sleep_for(std::chrono::microseconds(rounds * 1777 % 3000));  // spread over 0..3 ms
        ::kill(child, SIGKILL);
        ::waitpid(child, nullptr, 0);
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
    auto writer = [&](char c) {
        for (int i = 0; i < 40; ++i) failures += !FileManager::writeAtomically(path, std::string(size, c));
    };
    std::thread a(writer, 'A'), b(writer, 'B'), reader([&] {
        while (!stop) failures += !isWholeVersion(readText(path), size);
    });
    a.join();
    b.join();
    stop = true;
    reader.join();
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(namesIn(tmp.path()), std::vector<std::string>{"shared"});
}

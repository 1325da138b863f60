#include <krcommon/platform/io/FileManager.h>

#include "TempFolder.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
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
    for (const char* to : {"again", "to"}) {  // a missing source, whether or not the target exists
        EXPECT_FALSE(FileManager::moveItemAtPath(tmp / "from", tmp / to, &error));
        expectPOSIXError(error, ENOENT, to);
    }

    ASSERT_EQ(::symlink(tmp.path().c_str(), (tmp / "tree/a/link").c_str()), 0);  // must not be followed
    EXPECT_TRUE(FileManager::removeItemAtPath(tmp / "tree"));
    EXPECT_FALSE(FileManager::fileExistsAtPath(tmp / "tree"));
    EXPECT_EQ(readText(tmp / "to"), "old");
    EXPECT_FALSE(FileManager::removeItemAtPath(tmp / "tree", &error));
    expectPOSIXError(error, ENOENT, "removed twice");
    EXPECT_EQ(*error->userInfo()["NSFilePath"].string(), tmp / "tree");
}

// Across file systems a move copies the tree and removes the original.
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
    // /proc/self/mem opens, then fails to read at address 0.
    for (const auto& [path, code] : {std::pair{tmp / "missing", ENOENT}, std::pair{tmp.path(), EISDIR},
                                     std::pair{std::string("/proc/self/mem"), EIO}}) {
        std::shared_ptr<Error> error;
        EXPECT_FALSE(FileManager::contentsAtPath(path, &error)) << path;
        expectPOSIXError(error, code, path);
    }
}

TEST(FileManager, WritesReplaceOrFailLeavingNothingBehind) {
    TempFolder tmp;
    for (bool atomically : {true, false}) {
        const std::string path = tmp / (atomically ? "atomic" : "in-place");
        ASSERT_TRUE(FileManager::writeToFile(path, std::string("first, and longer"), atomically));
        ASSERT_TRUE(FileManager::writeToFile(path, Data{'s', 'e', 'c', 'o', 'n', 'd'}, atomically));
        EXPECT_EQ(readText(path), "second");
    }
    EXPECT_EQ(namesIn(tmp.path()).size(), 2u);

    writeText(tmp / "plain-file", "x");
    const std::pair<std::string, int> rows[] = {
        {tmp / "plain-file/target", ENOTDIR}, {tmp / "no-folder/target", ENOENT}, {tmp / "dir-as-target/", EISDIR}};
    for (const auto& [path, code] : rows) {
        for (bool atomically : {true, false}) {
            std::shared_ptr<Error> error;
            EXPECT_FALSE(FileManager::writeToFile(path, std::string("new"), atomically, &error)) << path;
            expectPOSIXError(error, code, path);
        }
    }
    EXPECT_EQ(namesIn(tmp.path()).size(), 3u);  // nothing left behind
}

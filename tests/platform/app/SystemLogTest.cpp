#include <krcommon/platform/app/SystemLog.h>

#include "platform/io/TempFolder.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <fstream>
#include <regex>
#include <thread>

using namespace krcommon::platform;

namespace {

TEST(StderrLogSink, PrefixesTimeProgramAndThreadAndEndsTheLine) {
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    StderrLogSink(fds[1]).write("hello %@ world");
    ::close(fds[1]);
    char buf[512];
    const auto n = ::read(fds[0], buf, sizeof buf);
    ::close(fds[0]);
    const std::string line(buf, static_cast<std::size_t>(std::max<ssize_t>(n, 0)));
    EXPECT_TRUE(std::regex_match(line, std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} [^ ]+\[\d+:\d+\] hello %@ world\n)")))
        << line;
}

// Two threads log through a file sink at once, some lines past the sink's stack buffer: every line
// arrives whole. A sink whose file cannot be opened drops lines.
TEST(FileLogSink, ConcurrentWritersProduceWholeLinesOnly) {
    krcommon::test::TempFolder folder;
    EXPECT_FALSE(FileLogSink(folder / "no-such-folder/log.txt").isOpen());
    FileLogSink(folder / "no-such-folder/log.txt").write("goes nowhere");
    const auto sink = std::make_shared<FileLogSink>(folder / "log.txt");
    ASSERT_TRUE(sink->isOpen());
    SystemLog::setSink(sink);
    const auto writer = [](char c) {
        for (int i = 0; i < 500; ++i) SystemLog::write(std::string(i % 50 == 0 ? 5000 : 80, c));
    };
    std::thread a(writer, 'a'), b(writer, 'b');
    a.join();
    b.join();
    SystemLog::log("formatted %d %@", 7, Value("x"));
    SystemLog::setSink(nullptr);
    std::ifstream lines(folder / "log.txt");
    int count = 0;
    for (std::string line; std::getline(lines, line); ++count) {
        if (count == 1000) EXPECT_EQ(line, "formatted 7 x");
        else EXPECT_TRUE(std::regex_match(line, std::regex("a{80}|b{80}|a{5000}|b{5000}"))) << line.size() << " bytes";
    }
    EXPECT_EQ(count, 1001);
}

}  // namespace

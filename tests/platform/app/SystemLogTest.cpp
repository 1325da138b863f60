#include <krcommon/platform/app/SystemLog.h>

#include "platform/io/TempFolder.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <fstream>
#include <map>
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

// A non-blocking pipe of one page and a reader taking 512 bytes at a time: the
// writers keep finding it full. Each line carries its writer, number and fill.
TEST(StderrLogSink, OnAFullNonBlockingPipeEveryLineArrivesWhole) {
    const std::pair<std::size_t, int> rows[] = {{2048, 40}, {200 * 1024, 4}};  // line length, lines per writer
    for (const auto& row : rows) {
        const std::size_t length = row.first;
        const int linesPerThread = row.second;
        SCOPED_TRACE(length);
        int fds[2];
        ASSERT_EQ(::pipe2(fds, O_CLOEXEC), 0);
        ::fcntl(fds[1], F_SETPIPE_SZ, 4096);
        ASSERT_EQ(::fcntl(fds[1], F_SETFL, O_NONBLOCK), 0);
        std::string received;
        std::thread reader([&] {
            char chunk[512];
            for (ssize_t n; (n = ::read(fds[0], chunk, sizeof chunk)) > 0;) received.append(chunk, std::size_t(n));
        });
        auto line = [&](char fill, int i) { return fill + std::to_string(i) + ":" + std::string(length, fill); };
        {
            StderrLogSink sink(fds[1]);
            auto writer = [&](char fill) {
                for (int i = 0; i < linesPerThread; ++i) sink.write(line(fill, i));
            };
            std::thread a(writer, 'a'), b(writer, 'b');
            a.join();
            b.join();
        }
        ::close(fds[1]);
        reader.join();
        ::close(fds[0]);

        std::map<char, int> next{{'a', 0}, {'b', 0}};
        std::size_t count = 0;
        for (std::size_t at = 0, end; at < received.size(); at = end + 1, ++count) {
            end = received.find('\n', at);
            ASSERT_NE(end, std::string::npos) << "the last line has no end";
            const std::size_t body = received.find("] ", at) + 2;  // after the time and process prefix
            ASSERT_LT(body, end);
            const char fill = received[body];
            ASSERT_EQ(received.substr(body, end - body), line(fill, next[fill]++)) << "line " << count << " is cut or mixed";
        }
        EXPECT_EQ(count, 2u * std::size_t(linesPerThread));
    }
}

}  // namespace

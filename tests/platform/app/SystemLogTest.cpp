#include <krcommon/platform/app/SystemLog.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <fstream>
#include <regex>
#include <sstream>
#include <thread>

using namespace krcommon::platform;

namespace {

std::string readAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

TEST(StderrLogSink, PrefixesTimeProgramAndThreadAndEndsTheLine) {
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    StderrLogSink sink(fds[1]);
    sink.write("hello %@ world");
    ::close(fds[1]);
    char buf[512];
    const auto n = ::read(fds[0], buf, sizeof buf);
    ::close(fds[0]);
    ASSERT_GT(n, 0);
    const std::string line(buf, static_cast<std::size_t>(n));
    EXPECT_TRUE(std::regex_match(
        line, std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} [^ ]+\[\d+:\d+\] hello %@ world\n)")))
        << line;
}

TEST(FileLogSink, ConcurrentWritersProduceWholeLinesOnly) {
    const std::string path = ::testing::TempDir() + "krcommon-filesink-" + std::to_string(::getpid()) + ".log";
    ::unlink(path.c_str());
    {
        auto sink = std::make_shared<FileLogSink>(path);
        ASSERT_TRUE(sink->isOpen());
        SystemLog::setSink(sink);
        const std::string longLine(5000, 'L');  // past the sink's stack buffer
        auto writer = [&](char c) {
            for (int i = 0; i < 500; ++i) SystemLog::write(i % 50 == 0 ? longLine : std::string(80, c));
        };
        std::thread a(writer, 'a'), b(writer, 'b');
        a.join();
        b.join();
        SystemLog::log("formatted %d %@", 7, Value("x"));
        SystemLog::setSink(nullptr);
    }
    std::istringstream lines(readAll(path));
    std::string line;
    int count = 0;
    while (std::getline(lines, line)) {
        ++count;
        if (count == 1001) {
            EXPECT_EQ(line, "formatted 7 x");
            continue;
        }
        const bool whole = line == std::string(80, 'a') || line == std::string(80, 'b') || line == std::string(5000, 'L');
        EXPECT_TRUE(whole) << "torn line of " << line.size() << " bytes";
    }
    EXPECT_EQ(count, 1001);
    ::unlink(path.c_str());
}

TEST(FileLogSink, UnopenableFileIsReportedAndWritesAreDropped) {
    FileLogSink sink("/nonexistent-folder/for/sure/log.txt");
    EXPECT_FALSE(sink.isOpen());
    sink.write("goes nowhere");  // must not crash
}

}  // namespace

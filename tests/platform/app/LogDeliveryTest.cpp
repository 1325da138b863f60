// Lines reach their reader whole, and a strings table that is skipped is named once.

#include <krcommon/platform/app/Bundle.h>
#include <krcommon/platform/app/StringsTable.h>
#include <krcommon/platform/app/SystemLog.h>

#include "platform/io/TempFolder.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <thread>

using namespace krcommon::platform;

namespace {

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

// The preferred language's table is broken: lookups fall back to the
// development region's, and one line names the broken file.
TEST(StringsTableLog, ABrokenTableIsNamedOncePerFile) {
    krcommon::test::TempFolder tmp;
    std::filesystem::create_directories(tmp / "fr.lproj");
    std::filesystem::create_directories(tmp / "en.lproj");
    std::ofstream(tmp / "fr.lproj/Errors.strings") << "\"kr_param_error\" = \"Paramètre invalide\"\n";  // no ';'
    std::ofstream(tmp / "en.lproj/Errors.strings") << "\"kr_param_error\" = \"Invalid parameter\";\n";
    Bundle::setPreferredLanguages({"fr"});
    krcommon::test::LogCapture log;
    auto bundle = Bundle::bundleWithPath(tmp.path());
    ASSERT_TRUE(bundle);
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(bundle->localizedStringForKey("kr_param_error", {}, "Errors"), "Invalid parameter");
    Bundle::setPreferredLanguages({});
    const auto lines = log.lines();
    for (int i = 0; i < 2; ++i) EXPECT_FALSE(StringsTable::readFile(tmp / "fr.lproj/Errors.strings"));
    EXPECT_EQ(log.lines(), lines) << "read again outside the bundle";
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find(tmp / "fr.lproj/Errors.strings"), std::string::npos) << lines[0];
}

}  // namespace

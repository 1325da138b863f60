#include <krcommon/platform/io/SearchPaths.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <optional>
#include <thread>
#include <vector>

using namespace krcommon::platform;

namespace {

// Saves the variables the search paths read and restores them, and the
// overrides, afterwards.
class SearchPathsTest : public ::testing::Test {
protected:
    void SetUp() override {
        for (const char* name : kNames) {
            const char* value = std::getenv(name);
            saved_.emplace_back(value ? std::optional<std::string>(value) : std::nullopt);
        }
    }
    void TearDown() override {
        for (std::size_t i = 0; i < std::size(kNames); ++i) set(kNames[i], saved_[i]);
        SearchPaths::setApplicationHome("");
        SearchPaths::setBundleIdentifier("");
    }
    static void set(const char* name, const std::optional<std::string>& value) {
        if (value) ::setenv(name, value->c_str(), 1);
        else ::unsetenv(name);
    }

    static constexpr const char* kNames[] = {"KRCOMMON_APP_HOME", "XDG_DATA_HOME", "HOME"};
    std::vector<std::optional<std::string>> saved_;
};

}  // namespace

TEST_F(SearchPathsTest, HomeComesFromTheEnvironmentInOrder) {
    SearchPaths::setBundleIdentifier("com.example.app");
    struct Row {
        std::optional<std::string> appHome, xdg, home;
        std::string expected;
    };
    const Row rows[] = {
        {"/srv/app/", "/xdg", "/home/u", "/srv/app"},
        {std::nullopt, "/xdg/", "/home/u", "/xdg/com.example.app"},
        {"", "/xdg", "/home/u", "/xdg/com.example.app"},  // empty counts as unset
        {std::nullopt, std::nullopt, "/home/u", "/home/u/.local/share/com.example.app"},
        {std::nullopt, "relative/xdg", "/home/u/", "/home/u/.local/share/com.example.app"},
    };
    for (const auto& row : rows) {
        set("KRCOMMON_APP_HOME", row.appHome);
        set("XDG_DATA_HOME", row.xdg);
        set("HOME", row.home);
        EXPECT_EQ(SearchPaths::applicationHome(), row.expected);
        EXPECT_EQ(SearchPaths::documentsDirectory(), row.expected + "/Documents");
        EXPECT_EQ(SearchPaths::libraryDirectory(), row.expected + "/Library");
    }
}

TEST_F(SearchPathsTest, HostOverrideWinsUntilCleared) {
    ::setenv("KRCOMMON_APP_HOME", "/from/env", 1);
    SearchPaths::setApplicationHome("/from/host/");
    EXPECT_EQ(SearchPaths::libraryDirectory(), "/from/host/Library");
    SearchPaths::setApplicationHome("");
    EXPECT_EQ(SearchPaths::applicationHome(), "/from/env");
}

TEST_F(SearchPathsTest, BundleIdentifierDefaultsToTheExecutableName) {
    ::unsetenv("KRCOMMON_APP_HOME");
    ::setenv("XDG_DATA_HOME", "/xdg", 1);
    EXPECT_EQ(SearchPaths::bundleIdentifier(), std::string(program_invocation_short_name));
    EXPECT_EQ(SearchPaths::applicationHome(), std::string("/xdg/") + program_invocation_short_name);
    SearchPaths::setBundleIdentifier("com.example.other");
    EXPECT_EQ(SearchPaths::applicationHome(), "/xdg/com.example.other");
}

TEST_F(SearchPathsTest, OverridesAreSafeAcrossThreads) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            const std::string mine = "/home" + std::to_string(t);
            for (int i = 0; i < 200; ++i) {
                if (t % 2 == 0) SearchPaths::setApplicationHome(mine);
                else SearchPaths::setBundleIdentifier("id" + std::to_string(i));
                const std::string seen = SearchPaths::documentsDirectory();
                EXPECT_EQ(seen.rfind("/Documents"), seen.size() - 10);
                EXPECT_FALSE(SearchPaths::bundleIdentifier().empty());
            }
        });
    }
    for (auto& t : threads) t.join();
}

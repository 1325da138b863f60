#include <krcommon/platform/io/SearchPaths.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <optional>
#include <thread>
#include <vector>

using namespace krcommon::platform;

namespace {

using Env = std::optional<std::string>;

Env getEnv(const char* name) { return std::getenv(name) ? Env(std::getenv(name)) : std::nullopt; }

void setEnv(const char* name, const Env& value) {
    if (value) ::setenv(name, value->c_str(), 1);
    else ::unsetenv(name);
}

void setEnv(const Env& appHome, const Env& xdg, const Env& home) {
    setEnv("KRCOMMON_APP_HOME", appHome);
    setEnv("XDG_DATA_HOME", xdg);
    setEnv("HOME", home);
}

// Restores the variables the search paths read, and clears the overrides, after each test.
class SearchPathsTest : public ::testing::Test {
protected:
    void TearDown() override {
        setEnv(appHome_, xdg_, home_);
        SearchPaths::setApplicationHome("");
        SearchPaths::setBundleIdentifier("");
    }
    Env appHome_ = getEnv("KRCOMMON_APP_HOME"), xdg_ = getEnv("XDG_DATA_HOME"), home_ = getEnv("HOME");
};

}  // namespace

TEST_F(SearchPathsTest, HomeComesFromOverrideThenEnvironmentInOrder) {
    SearchPaths::setBundleIdentifier("com.example.app");
    const std::tuple<Env, Env, Env, std::string> rows[] = {  // KRCOMMON_APP_HOME, XDG_DATA_HOME, HOME, expected
        {"/srv/app/", "/xdg", "/home/u", "/srv/app"},
        {std::nullopt, "/xdg/", "/home/u", "/xdg/com.example.app"},
        {"", "/xdg", "/home/u", "/xdg/com.example.app"},  // empty counts as unset
        {std::nullopt, std::nullopt, "/home/u", "/home/u/.local/share/com.example.app"},
        {std::nullopt, "relative/xdg", "/home/u/", "/home/u/.local/share/com.example.app"},
    };
    for (const auto& [appHome, xdg, home, expected] : rows) {
        setEnv(appHome, xdg, home);
        EXPECT_EQ(SearchPaths::applicationHome(), expected);
        EXPECT_EQ(SearchPaths::documentsDirectory(), expected + "/Documents");
        EXPECT_EQ(SearchPaths::libraryDirectory(), expected + "/Library");
    }
    setEnv("/from/env", "/xdg", "/home/u");
    SearchPaths::setApplicationHome("/from/host/");
    EXPECT_EQ(SearchPaths::libraryDirectory(), "/from/host/Library");
    SearchPaths::setApplicationHome("");
    EXPECT_EQ(SearchPaths::applicationHome(), "/from/env");
    // Without an identifier set, the executable's name stands in.
    ::unsetenv("KRCOMMON_APP_HOME");
    SearchPaths::setBundleIdentifier("");
    EXPECT_EQ(SearchPaths::bundleIdentifier(), std::string(program_invocation_short_name));
    EXPECT_EQ(SearchPaths::applicationHome(), std::string("/xdg/") + program_invocation_short_name);
}

TEST_F(SearchPathsTest, OverridesAreSafeAcrossThreads) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < 200; ++i) {
                if (t % 2 == 0) SearchPaths::setApplicationHome("/home" + std::to_string(t));
                else SearchPaths::setBundleIdentifier("id" + std::to_string(i));
                EXPECT_TRUE(SearchPaths::documentsDirectory().ends_with("/Documents"));
                EXPECT_FALSE(SearchPaths::bundleIdentifier().empty());
            }
        });
    }
    for (auto& t : threads) t.join();
}

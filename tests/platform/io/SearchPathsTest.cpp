#include <krcommon/platform/io/SearchPaths.h>

#include "platform/app/BundleTestSupport.h"

#include <gtest/gtest.h>

#include <cerrno>

using namespace krcommon::platform;
using krcommon::test::ScopedEnv;

// The overrides are process-wide: each test clears them when it ends.
class SearchPathsTest : public ::testing::Test {
protected:
    void TearDown() override {
        SearchPaths::setApplicationHome("");
        SearchPaths::setBundleIdentifier("");
    }
};

TEST_F(SearchPathsTest, HomeComesFromOverrideThenEnvironmentInOrder) {
    SearchPaths::setBundleIdentifier("com.example.app");
    const std::tuple<const char*, const char*, const char*, std::string> rows[] = {  // nullptr: unset
        // KRCOMMON_APP_HOME, XDG_DATA_HOME, HOME, expected home
        {"/srv/app/", "/xdg", "/home/u", "/srv/app"},
        {nullptr, "/xdg/", "/home/u", "/xdg/com.example.app"},
        {"", "/xdg", "/home/u", "/xdg/com.example.app"},  // empty counts as unset
        {nullptr, nullptr, "/home/u", "/home/u/.local/share/com.example.app"},
        {nullptr, "relative/xdg", "/home/u/", "/home/u/.local/share/com.example.app"},
    };
    for (const auto& [appHome, xdg, home, expected] : rows) {
        ScopedEnv a("KRCOMMON_APP_HOME", appHome), x("XDG_DATA_HOME", xdg), h("HOME", home);
        EXPECT_EQ(SearchPaths::applicationHome(), expected);
        EXPECT_EQ(SearchPaths::documentsDirectory(), expected + "/Documents");
        EXPECT_EQ(SearchPaths::libraryDirectory(), expected + "/Library");
    }
    ScopedEnv a("KRCOMMON_APP_HOME", "/from/env"), x("XDG_DATA_HOME", "/xdg"), h("HOME", "/home/u");
    SearchPaths::setApplicationHome("/from/host/");
    EXPECT_EQ(SearchPaths::libraryDirectory(), "/from/host/Library");
    SearchPaths::setApplicationHome("");
    EXPECT_EQ(SearchPaths::applicationHome(), "/from/env");
    // Without an identifier set, the executable's name stands in.
    ScopedEnv none("KRCOMMON_APP_HOME", nullptr);
    SearchPaths::setBundleIdentifier("");
    EXPECT_EQ(SearchPaths::bundleIdentifier(), std::string(program_invocation_short_name));
    EXPECT_EQ(SearchPaths::applicationHome(), std::string("/xdg/") + program_invocation_short_name);
}

#include <krcommon/platform/ui/ModuleResources.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <string>

using krcommon::platform::ModuleResources;

TEST(ModuleResources, TheEnvironmentOverridesTheFolderBesideTheLibrary) {
    std::optional<std::string> saved;
    if (const char* old = std::getenv("KRCOMMON_RESOURCES")) saved = old;
    ::setenv("KRCOMMON_RESOURCES", "/somewhere/else", 1);
    EXPECT_EQ(ModuleResources::directory(), "/somewhere/else");
    ::setenv("KRCOMMON_RESOURCES", "", 1);  // empty counts as unset
    const auto beside = ModuleResources::directory();
    EXPECT_EQ(beside.filename(), "krcommon");
    EXPECT_EQ(beside.parent_path().filename(), "share");
    // This program carries the static library: <build>/tests/krcommon_tests gives <build>/share/krcommon.
    EXPECT_TRUE(beside.is_absolute());
    if (saved) {
        ::setenv("KRCOMMON_RESOURCES", saved->c_str(), 1);
    } else {
        ::unsetenv("KRCOMMON_RESOURCES");
    }
}

#include <krcommon/platform/ui/ModuleResources.h>

#include "platform/app/BundleTestSupport.h"

#include <gtest/gtest.h>

using krcommon::platform::ModuleResources;
using krcommon::test::ScopedEnv;

TEST(ModuleResources, TheEnvironmentOverridesTheFolderBesideTheLibrary) {
    {
        ScopedEnv elsewhere("KRCOMMON_RESOURCES", "/somewhere/else");
        EXPECT_EQ(ModuleResources::directory(), "/somewhere/else");
    }
    ScopedEnv empty("KRCOMMON_RESOURCES", "");  // empty counts as unset
    const auto beside = ModuleResources::directory();
    EXPECT_EQ(beside.filename(), "krcommon");
    EXPECT_EQ(beside.parent_path().filename(), "share");
    // This program carries the static library: <build>/tests/krcommon_tests gives <build>/share/krcommon.
    EXPECT_TRUE(beside.is_absolute());
}

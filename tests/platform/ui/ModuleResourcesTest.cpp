#include <krcommon/platform/ui/ModuleResources.h>

#include "platform/app/BundleTestSupport.h"

#include <gtest/gtest.h>

using krcommon::platform::ModuleResources;
using krcommon::test::ScopedEnv;

// The folder beside the library: <build>/share/krcommon for this program, which carries the static library.
TEST(ModuleResources, TheEnvironmentOverridesTheFolderBesideTheLibrary) {
    {
        ScopedEnv elsewhere("KRCOMMON_RESOURCES", "/somewhere/else");
        EXPECT_EQ(ModuleResources::directory(), "/somewhere/else");
    }
    ScopedEnv empty("KRCOMMON_RESOURCES", "");  // empty counts as unset
    EXPECT_EQ(ModuleResources::directory(), std::filesystem::canonical("/proc/self/exe").parent_path().parent_path() / "share/krcommon");
}

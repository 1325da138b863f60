#include <krcommon/platform/ui/ImageContext.h>
#include <krcommon/platform/ui/ModuleResources.h>

#include "platform/app/BundleTestSupport.h"
#include "platform/io/TempFolder.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>


using namespace krcommon::platform;
using krcommon::test::ScopedEnv;

TEST(ModuleResources, TheEnvironmentOverridesTheFolderBesideTheLibrary) {
    {
        ScopedEnv elsewhere("KRCOMMON_RESOURCES", "/somewhere/else");
        EXPECT_EQ(ModuleResources::directory(), "/somewhere/else");
    }
    ScopedEnv empty("KRCOMMON_RESOURCES", "");  // empty counts as unset
    // This program carries the static library: <build>/tests/krcommon_tests looks in <build>/share/krcommon
    // (none exists, so that first candidate is answered).
    const auto program = std::filesystem::canonical("/proc/self/exe");
    EXPECT_EQ(ModuleResources::directory(), program.parent_path().parent_path() / "share" / "krcommon");
}

// No folder on disk holds the picture here (this program is not installed), so it
// can only come from the library itself.
TEST(ModuleResources, FindsThePictureAtEachScreenScaleWithoutAnyFolder) {
    ScopedEnv unset("KRCOMMON_RESOURCES", nullptr);
    ASSERT_FALSE(std::filesystem::exists(ModuleResources::directory() / "mm404Image.png"));
    const double saved = Screen::mainScreen().scale();
    for (const double scale : {1.0, 2.0, 3.0}) {
        Screen::mainScreen().setScale(scale);
        const auto image = ModuleResources::imageNamed("mm404Image");
        EXPECT_TRUE(image && image->scale() == scale && image->size() == (Size{105, 105})) << "scale " << scale;
    }
    Screen::mainScreen().setScale(saved);
}

TEST(ModuleResources, TheOverrideFolderIsTheOnlyPlaceLookedAt) {
    krcommon::test::TempFolder folder;
    ScopedEnv env("KRCOMMON_RESOURCES", folder.path().c_str());
    krcommon::test::LogCapture log;
    EXPECT_EQ(ModuleResources::imageNamed("mm404Image"), nullptr);
    EXPECT_EQ(ModuleResources::imageNamed("mm404Image"), nullptr);  // told once, not at every layout pass
    EXPECT_EQ(log.count("no picture \"mm404Image\" in " + folder.path()), 1u);

    ASSERT_TRUE(Image(1, 1, 1, {0xFFFF0000}).writeToFile(folder / "mm404Image.png"));
    const auto image = ModuleResources::imageNamed("mm404Image");
    ASSERT_TRUE(image);
    EXPECT_EQ(image->pixelAt(0, 0), (Pixel{255, 0, 0, 255}));
}

#include <krcommon/platform/ui/Image.h>

#include <krcommon/platform/core/Exception.h>
#include <krcommon/platform/ui/ImageContext.h>

#include "platform/io/TempFolder.h"

#include <gtest/gtest.h>

#include <fstream>
#include <random>

using namespace krcommon::platform;
using krcommon::test::TempFolder;

namespace {

// A solid image drawn through a context of `size` points at `scale`.
std::shared_ptr<Image> solid(const Color& color, Size size, double scale) {
    beginImageContextWithOptions(size, false, scale);
    color.set();
    getCurrentContext()->fillRect({0, 0, size.width, size.height});
    auto image = getImageFromCurrentImageContext();
    endImageContext();
    return image;
}

class ScreenScale : public testing::Test {
protected:
    void SetUp() override { saved_ = Screen::mainScreen().scale(); }
    void TearDown() override { Screen::mainScreen().setScale(saved_); }
    double saved_ = 2;
};

// Components are clamped; white is the middle of the three, so a colour's grey is its green here.
TEST(Color, ClampsComponentsAndKeepsItsSpace) {
    double r = -1, g = -1, b = -1, a = -1, w = -1;
    ASSERT_TRUE(Color::colorWithRed(2, -1, NAN, 0.25).getRed(r, g, b, a));
    EXPECT_EQ((std::array{r, g, b, a}), (std::array{1.0, 0.0, 0.0, 0.25}));
    ASSERT_TRUE(Color::colorWithRed(0.3, 0.6, 0.9, 1).getWhite(w, a));
    EXPECT_DOUBLE_EQ(w, 0.6);
    const Color pattern = Color::colorWithPatternImage(solid(Color::whiteColor(), {1, 1}, 1));
    EXPECT_FALSE(pattern.getWhite(w, a));
    EXPECT_EQ(pattern.colorWithAlphaComponent(0.5), pattern);
    EXPECT_EQ(Color::colorWithRed(1, 0, 0, 1).description(), "UIExtendedSRGBColorSpace 1 0 0 1");
    EXPECT_EQ(Color::colorWithWhite(0.5, 1).description(), "UIExtendedGrayColorSpace 0.5 1");
    EXPECT_NE(Color::colorWithWhite(1, 1), Color::colorWithRed(1, 1, 1, 1));  // different spaces
}

TEST_F(ScreenScale, ContextsStackPerThreadAndSnapshotTheirPixels) {
    EXPECT_EQ(getCurrentContext(), nullptr);
    EXPECT_EQ(getImageFromCurrentImageContext(), nullptr);
    endImageContext();  // nothing to pop: harmless

    Screen::mainScreen().setScale(3);
    beginImageContextWithOptions({2, 1}, true, 0);  // opaque, screen scale
    GraphicsContext* outer = getCurrentContext();
    ASSERT_NE(outer, nullptr);
    beginImageContext({1, 1});
    EXPECT_NE(getCurrentContext(), outer);
    Color::colorWithRed(0, 1, 0, 1).setFill();
    getCurrentContext()->fillRect({0, 0, 1, 1});
    const auto inner = getImageFromCurrentImageContext();
    endImageContext();
    EXPECT_EQ(getCurrentContext(), outer);
    Color::colorWithRed(0, 0, 1, 0.5).set();
    outer->fillRect({1, 0, 1, 1});  // the right point only
    const auto image = getImageFromCurrentImageContext();
    endImageContext();
    EXPECT_EQ(getCurrentContext(), nullptr);

    ASSERT_TRUE(inner && image);
    EXPECT_EQ(inner->scale(), 1);
    EXPECT_EQ(inner->pixelAt(0, 0), (Pixel{0, 255, 0, 255}));
    EXPECT_EQ(image->scale(), 3);
    EXPECT_EQ(image->size(), (Size{2, 1}));
    EXPECT_EQ(image->pixelAt(2, 2), (Pixel{0, 0, 0, 255}));        // opaque black start
    const Pixel half = image->pixelAt(3, 0);                       // blue at half over black
    EXPECT_EQ(half.alpha, 255);
    EXPECT_NEAR(half.blue, 128, 1);
    EXPECT_EQ(half.red + half.green, 0);
    EXPECT_EQ(image->pixelAt(6, 0), Pixel{});                      // outside
    Screen::mainScreen().setScale(-1);                             // ignored
    EXPECT_EQ(Screen::mainScreen().scale(), 3);
}

// A snapshot is a copy that later drawing leaves alone; taking the image at the end hands over the
// pixels as they finally are and pops the context, drawable or not. Restoring brings back the fill
// colour and the translation saved with it; a restore with nothing saved changes nothing.
TEST(ImageContext, SnapshotsKeepTheirPixelsAndRestoreBringsBackTheSavedFill) {
    EXPECT_EQ(endImageContextTakingImage(), nullptr);  // empty stack
    beginImageContext({3, 1});
    auto* context = getCurrentContext();
    context->restoreGState();  // nothing saved
    Color::colorWithRed(1, 0, 0, 1).setFill();
    context->fillRect({0, 0, 1, 1});
    const auto early = getImageFromCurrentImageContext();
    context->saveGState();
    Color::colorWithRed(0, 0, 1, 1).setFill();
    context->translateCTM(1, 0);
    context->fillRect({0, 0, 1, 1});  // blue at x = 1
    context->restoreGState();
    context->restoreGState();         // unmatched: ignored
    context->fillRect({2, 0, 1, 1});  // red at x = 2, still drawing
    beginImageContextWithOptions({0, 5}, false, 1);  // not drawable, still pushed
    EXPECT_EQ(endImageContextTakingImage(), nullptr);
    const auto final = endImageContextTakingImage();
    EXPECT_EQ(getCurrentContext(), nullptr);
    ASSERT_TRUE(early && final);
    EXPECT_EQ(early->pixels(), (std::vector<std::uint32_t>{0xFFFF0000u, 0, 0}));
    EXPECT_EQ(final->pixels(), (std::vector<std::uint32_t>{0xFFFF0000u, 0xFF0000FFu, 0xFFFF0000u}));
}

// Every pixel comes back exactly, opaque images (written without alpha) and translucent ones
// (straight colour in the file, premultiplied in memory) alike; a cut file reads as nothing.
class ImagePNGRoundTrip : public ::testing::TestWithParam<bool> {};

TEST_P(ImagePNGRoundTrip, IsExactForAnyPixels) {
    const bool opaque = GetParam();
    std::mt19937 random(opaque ? 7 : 11);
    std::vector<std::uint32_t> pixels(37 * 23);
    for (auto& word : pixels) {
        const std::uint32_t a = opaque ? 255 : random() % 256;
        const auto channel = [&] { return a == 0 ? 0u : static_cast<std::uint32_t>(random() % (a + 1)); };
        word = a << 24 | channel() << 16 | channel() << 8 | channel();
    }
    const Data png = Image(37, 23, 1, pixels).PNGRepresentation();
    ASSERT_GT(png.size(), 25u);
    EXPECT_EQ(png[25], opaque ? 2 : 6);  // colour type in the header: RGB or RGBA
    const auto back = Image::imageWithData(png, 1);
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(back->pixels(), pixels);
    EXPECT_EQ(Image::imageWithData(Data(png.begin(), png.end() - 20), 1), nullptr);
}

INSTANTIATE_TEST_SUITE_P(Alpha, ImagePNGRoundTrip, ::testing::Values(true, false),
                         [](const auto& info) { return info.param ? "Opaque" : "Translucent"; });

TEST(Image, FilesGiveTheScaleByNameAndBadOnesGiveNothing) {
    TempFolder folder;
    const auto image = solid(Color::colorWithRed(1, 0, 0, 0.5), {3, 2}, 2);
    ASSERT_TRUE(image->writeToFile(folder / "pic@2x.png") && image->writeToFile(folder / "pic.png"));
    const auto twice = Image::imageWithContentsOfFile(folder / "pic@2x.png");
    const auto once = Image::imageWithContentsOfFile(folder / "pic.png");
    ASSERT_TRUE(twice && once);
    EXPECT_EQ(twice->pixels(), image->pixels());
    EXPECT_EQ(twice->size(), (Size{3, 2}));
    EXPECT_EQ(once->size(), (Size{6, 4}));
    EXPECT_EQ(once->pixelAt(5, 3), (Pixel{255, 0, 0, 128}));
    std::ofstream(folder / "junk.png") << "not a png";
    EXPECT_EQ(Image::imageWithContentsOfFile(folder / "junk.png"), nullptr);
    EXPECT_EQ(Image::imageWithContentsOfFile(folder / "missing.png"), nullptr);
    EXPECT_EQ(Image::imageWithData({}), nullptr);
    EXPECT_FALSE(image->writeToFile(folder / "no-such-folder/x.png"));
    EXPECT_THROW(Image(2, 2, 1, std::vector<std::uint32_t>(3)), Exception);
}

TEST_F(ScreenScale, ImageNamedPrefersTheScreensScale) {
    TempFolder folder;  // which file was read shows in the scale of the image
    for (const auto& [name, scale] : {std::pair{"icon.png", 1.0}, {"icon@2x.png", 2.0}, {"icon@3x.png", 3.0},
                                      {"only@3x.png", 3.0}})
        ASSERT_TRUE(solid(Color::whiteColor(), {1, 1}, scale)->writeToFile(folder / name));
    struct Row {
        double screen;
        const char* name;
        double expectedScale;
    };
    const Row rows[] = {{1, "icon", 1}, {2, "icon", 2}, {3, "icon.png", 3}, {2, "only", 3}, {1, "only", 3}};
    for (const auto& row : rows) {
        Screen::mainScreen().setScale(row.screen);
        const auto image = Image::imageNamed(row.name, folder.path());
        ASSERT_TRUE(image) << row.name;
        EXPECT_EQ(image->scale(), row.expectedScale) << row.name << " at " << row.screen;
        EXPECT_EQ(image->size(), (Size{1, 1}));
    }
    EXPECT_EQ(Image::imageNamed("absent", folder.path()), nullptr);
    EXPECT_EQ(Image::imageNamed("", folder.path()), nullptr);
}

TEST(Image, PatternColoursTileTheirImage) {
    // A 2 x 1 tile: red then transparent.
    const auto tile = std::make_shared<Image>(2, 1, 1, std::vector<std::uint32_t>{0xFFFF0000u, 0});
    beginImageContext({5, 1});
    Color::colorWithPatternImage(tile).setFill();
    getCurrentContext()->fillRect({0, 0, 5, 1});
    const auto image = getImageFromCurrentImageContext();
    endImageContext();
    for (int x = 0; x < 5; ++x) EXPECT_EQ(image->pixelAt(x, 0).alpha, x % 2 == 0 ? 255 : 0) << x;
}

}  // namespace

#include <krcommon/platform/ui/Renderer.h>

#include <krcommon/platform/ui/Label.h>
#include <krcommon/platform/ui/ScrollView.h>

#include "platform/io/TempFolder.h"
#include "platform/ui/PngReader.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include <algorithm>

using namespace krcommon::platform;
using krcommon::test::near;
using krcommon::test::PngReader;
using krcommon::test::Rgba;
using krcommon::test::TempFolder;

namespace {

std::shared_ptr<View> box(Rect frame, Color color) {
    auto v = std::make_shared<View>(frame);
    v->setBackgroundColor(color);
    return v;
}

const Color kRed = Color::colorWithRed(1, 0, 0, 1);
const Color kBlue = Color::colorWithRed(0, 0, 1, 1);

TEST(Renderer, DrawsBackgroundsCornersClippingHiddenAlphaAndScrolling) {
    TempFolder folder;
    auto root = std::make_shared<ScrollView>(Rect{100, 100, 60, 40});  // drawn at the canvas origin
    root->setBackgroundColor(Color::whiteColor());
    auto disc = box({0, 0, 20, 20}, kRed);
    disc->setCornerRadius(10);
    auto clipper = box({20, 0, 20, 20}, kBlue);
    clipper->setClipsToBounds(true);
    clipper->addSubview(box({10, 10, 20, 20}, kRed));  // shows only inside the clipper: x 30...40, y 10...20
    auto hidden = box({40, 0, 20, 20}, kRed);
    hidden->setHidden(true);
    auto faint = box({40, 20, 20, 20}, Color::blackColor());
    faint->setAlpha(0.5);
    auto below = box({0, 50, 10, 10}, kBlue);  // under the visible area until scrolled
    for (const auto& v : {disc, clipper, hidden, faint, below}) root->addSubview(v);

    const auto render = [&](const char* name) {
        EXPECT_TRUE(Renderer::renderToPNG(*root, folder / name, 2));
        return std::make_unique<PngReader>(folder / name);
    };
    const auto png = render("tree.png");
    ASSERT_TRUE(png->ok());
    ASSERT_EQ(png->width(), 120);
    ASSERT_EQ(png->height(), 80);
    const struct {
        int x, y;  // in points
        int r, g, b;
        const char* what;
    } probes[] = {
        {10, 10, 255, 0, 0, "disc centre"},       {1, 1, 255, 255, 255, "disc corner, rounded off"},
        {25, 5, 0, 0, 255, "clipper"},            {35, 15, 255, 0, 0, "clipped child inside"},
        {35, 25, 255, 255, 255, "clipped child outside"}, {50, 10, 255, 255, 255, "hidden view"},
        {50, 30, 128, 128, 128, "half-transparent black over white"},
    };
    for (const auto& p : probes) {
        const Rgba c = png->at(p.x * 2, p.y * 2);
        EXPECT_TRUE(near(c, p.r, p.g, p.b, 2)) << p.what << ": " << c.r << "," << c.g << "," << c.b << "," << c.a;
    }
    root->setContentOffset({0, 30});
    const auto scrolled = render("scrolled.png");
    EXPECT_TRUE(near(scrolled->at(10, 50), 0, 0, 255)) << "content y 55 is shown at 25";
    EXPECT_TRUE(near(scrolled->at(20, 10), 255, 255, 255)) << "the disc scrolled away";
}

// A label draws its text, in the font and colour set after the text as much as before it.
TEST(Renderer, DrawsALabelsTextInTheColourSetLast) {
    Label label(Rect{0, 0, 60, 40});
    label.setText("WW");
    label.setFont(Font::boldSystemFontOfSize(30));
    label.setTextColor(kRed);
    const auto image = Renderer::renderImage(label, 1);
    ASSERT_TRUE(image);
    const auto pixels = image->pixels();
    EXPECT_TRUE(std::any_of(pixels.begin(), pixels.end(), [](std::uint32_t p) { return p == 0xFFFF0000u; }));
    EXPECT_FALSE(std::any_of(pixels.begin(), pixels.end(), [](std::uint32_t p) { return p == 0xFF000000u; }));
}

TEST(Renderer, RefusesAViewWithoutArea) {
    krcommon::test::LogCapture log;
    TempFolder folder;
    View empty(Rect{0, 0, 0, 50});
    EXPECT_EQ(Renderer::renderImage(empty), nullptr);
    EXPECT_FALSE(Renderer::renderToPNG(empty, folder / "none.png"));
    EXPECT_TRUE(log.contains("Renderer: nothing to draw for a view of 0 x 50 points"));
}

}  // namespace

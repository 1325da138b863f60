#include <krcommon/errorpage/MM404H5View.h>

#include <krcommon/errorpage/MM404H5Manager.h>
#include <krcommon/platform/app/Application.h>
#include <krcommon/platform/ui/ImageContext.h>
#include <krcommon/platform/ui/Renderer.h>

#include "platform/app/BundleTestSupport.h"
#include "platform/io/TempFolder.h"
#include "platform/ui/PngReader.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include <iostream>
#include <memory>
#include <string>
#include <vector>

using namespace krcommon;
using namespace krcommon::platform;
using krcommon::test::near;
using krcommon::test::PngReader;
using krcommon::test::Rgba;

namespace {

Color rgb255(int r, int g, int b) { return Color::colorWithRed(r / 255.0, g / 255.0, b / 255.0, 1); }
const Color kGrey = rgb255(100, 100, 100);
const Color kBlue = rgb255(15, 151, 255);

void resetManager() {
    auto& m = MM404H5Manager::sharedManager();
    m.setImage(nullptr);
    m.setAttrTitleString(std::nullopt);
    m.setAttrSubtitleString(std::nullopt);
    m.setRefreshButtonBackgroundColor(std::nullopt);
    m.setRefreshButtonTitleColor(std::nullopt);
    m.setCloseButtonBackgroundColor(std::nullopt);
    m.setCloseButtonTitleColor(std::nullopt);
    m.setDelegate({});
}

// The page reads its picture from the library's resources: here, the source tree's.
class MM404H5ViewTest : public testing::Test {
protected:
    void SetUp() override {
        resetManager();
        Application::shared().setOpenURLHandler([this](const URL& url) {
            opened_.push_back(url.absoluteString());
            return true;
        });
    }
    void TearDown() override {
        resetManager();
        Application::shared().setOpenURLHandler(nullptr);
        Screen::mainScreen().setScale(scale_);
    }

    test::ScopedEnv resources_{"KRCOMMON_RESOURCES", KRCOMMON_SOURCE_RESOURCES};
    double scale_ = Screen::mainScreen().scale();
    std::vector<std::string> opened_;
};

void expectRect(const Rect& actual, const Rect& expected, const std::string& what) {
    EXPECT_NEAR(actual.minX(), expected.minX(), 1e-9) << what;
    EXPECT_NEAR(actual.minY(), expected.minY(), 1e-9) << what;
    EXPECT_NEAR(actual.width(), expected.width(), 1e-9) << what;
    EXPECT_NEAR(actual.height(), expected.height(), 1e-9) << what;
}

// The colour of a 1 x 1 button background image.
Pixel fill(const std::shared_ptr<Image>& image) {
    EXPECT_TRUE(image);
    if (!image) return {};
    EXPECT_EQ(image->pixelWidth(), 1);
    EXPECT_EQ(image->scale(), 1);
    return image->pixelAt(0, 0);
}
// Whether a button background is opaque (r, g, b), within the rounding of 8-bit channels.
testing::AssertionResult fills(const std::shared_ptr<Image>& image, double r, double g, double b) {
    const Pixel p = fill(image);
    const auto close = [](int actual, double expected) { return std::abs(actual - expected) <= 1.0; };
    if (p.alpha == 255 && close(p.red, r) && close(p.green, g) && close(p.blue, b)) return testing::AssertionSuccess();
    return testing::AssertionFailure() << "pixel " << int(p.red) << "," << int(p.green) << "," << int(p.blue) << ","
                                       << int(p.alpha);
}

struct SizeRow {
    double w, h;
};

TEST_F(MM404H5ViewTest, StacksItsPartsByTheConstraintTable) {
    for (const SizeRow s : {SizeRow{375, 667}, SizeRow{320, 568}, SizeRow{414, 896}, SizeRow{667, 375}}) {
        auto page = MM404H5View::initWithFrame({0, 0, s.w, s.h});
        page->layoutIfNeeded();
        const std::string at = std::to_string(s.w) + "x" + std::to_string(s.h);
        const double pictureTop = 0.15 * s.h;
        const double side = 0.28 * s.w;
        const double buttonWidth = 0.67 * s.w;
        const double buttonHeight = 0.18 * buttonWidth;
        const double refreshTop = pictureTop + side + 10 + 30 + 25 + 0.23 * s.h;
        expectRect(page->mm404ImageView()->frame(), {(s.w - side) / 2, pictureTop, side, side}, "picture " + at);
        expectRect(page->mm404TitleLable()->frame(), {0.1 * s.w, pictureTop + side + 10, 0.8 * s.w, 30}, "title " + at);
        expectRect(page->mm404SubTitleLable()->frame(), {0.1 * s.w, pictureTop + side + 40, 0.8 * s.w, 25},
                   "subtitle " + at);
        expectRect(page->mm404RefreshButton()->frame(), {(s.w - buttonWidth) / 2, refreshTop, buttonWidth, buttonHeight},
                   "refresh " + at);
        expectRect(page->mm404CloseButton()->frame(),
                   {(s.w - buttonWidth) / 2, refreshTop + buttonHeight + 20, buttonWidth, buttonHeight}, "close " + at);
        EXPECT_EQ(page->contentSize(), (Size{s.w, std::max(s.w, s.h) + 100})) << at;
        EXPECT_NEAR(page->mm404RefreshButton()->cornerRadius(), buttonHeight / 2, 1e-9) << at;
        EXPECT_NEAR(page->mm404CloseButton()->cornerRadius(), buttonHeight / 2, 1e-9) << at;
        EXPECT_TRUE(page->mm404CloseButton()->clipsToBounds());
        // In order, all placed by constraints.
        const std::vector<std::shared_ptr<View>> parts{page->mm404ImageView(), page->mm404TitleLable(),
                                                       page->mm404SubTitleLable(), page->mm404RefreshButton(),
                                                       page->mm404CloseButton()};
        EXPECT_EQ(page->subviews(), parts);
        EXPECT_EQ(page->constraints().size(), 20u);
    }
}

TEST_F(MM404H5ViewTest, HeightOffsetsStayFromCreationWhileWidthsFollowTheFrame) {
    auto page = MM404H5View::initWithFrame({0, 0, 375, 667});
    page->layoutIfNeeded();
    page->setFrame({0, 0, 500, 300});
    page->layoutIfNeeded();
    expectRect(page->mm404ImageView()->frame(), {180, 100.05, 140, 140}, "picture");
    EXPECT_NEAR(page->mm404RefreshButton()->frame().minY() - page->mm404SubTitleLable()->frame().maxY(), 153.41, 1e-9);
    EXPECT_NEAR(page->mm404RefreshButton()->cornerRadius(), 500 * 0.67 * 0.18 / 2, 1e-9);  // re-applied at layout
    EXPECT_EQ(page->contentSize(), (Size{375, 767}));  // set once, at creation

    // The owner can change the kept height constraints.
    page->mm404TitleLabelHeightConstraint()->setConstant(50);
    page->mm404SubTitleLabelHeightConstraint()->setConstant(10);
    page->layoutIfNeeded();
    EXPECT_NEAR(page->mm404TitleLable()->frame().height(), 50, 1e-9);
    EXPECT_NEAR(page->mm404SubTitleLable()->frame().minY(), 100.05 + 140 + 10 + 50, 1e-9);
    EXPECT_NEAR(page->mm404SubTitleLable()->frame().height(), 10, 1e-9);
}

TEST_F(MM404H5ViewTest, ShowsTheBuiltInLookWhenTheManagerIsUntouched) {
    Screen::mainScreen().setScale(2);
    auto page = MM404H5View::initWithFrame({0, 0, 375, 667});
    EXPECT_EQ(page->backgroundColor(), Color::whiteColor());
    ASSERT_TRUE(page->mm404ImageView()->image());
    EXPECT_EQ(page->mm404ImageView()->image()->scale(), 2);  // the @2x picture on a 2x screen
    EXPECT_EQ(page->mm404ImageView()->image()->size(), (Size{105, 105}));

    const auto& title = page->mm404TitleLable()->attributedText();
    ASSERT_TRUE(title);
    EXPECT_EQ(title->string(), "网络无法连接");
    ASSERT_EQ(title->runs().size(), 1u);
    EXPECT_EQ(title->runs()[0].attributes.font, Font::boldSystemFontOfSize(20));
    EXPECT_EQ(title->runs()[0].attributes.foregroundColor, kGrey);
    EXPECT_EQ(page->mm404TitleLable()->textAlignment(), TextAlignment::Center);

    const auto& subtitle = page->mm404SubTitleLable()->attributedText();
    ASSERT_TRUE(subtitle);
    EXPECT_EQ(subtitle->string(), "请检查您的  网络设置");
    ASSERT_EQ(subtitle->runs().size(), 2u);
    EXPECT_EQ(subtitle->runs()[0].range, (Range{0, 6}));
    EXPECT_EQ(subtitle->runs()[0].attributes.foregroundColor, kGrey);
    EXPECT_EQ(subtitle->runs()[1].range, (Range{6, 5}));
    EXPECT_EQ(subtitle->runs()[1].attributes.foregroundColor, kBlue);
    EXPECT_EQ(subtitle->runs()[1].attributes.font, Font::systemFontOfSize(15));
    EXPECT_EQ(page->mm404SubTitleLable()->textAlignment(), TextAlignment::Center);

    const auto& refresh = page->mm404RefreshButton();
    EXPECT_EQ(refresh->buttonType(), ButtonType::Custom);
    EXPECT_EQ(fill(refresh->backgroundImageForState(ControlStateNormal)), (Pixel{15, 151, 255, 255}));
    // Pressed: each channel 0.1 (25.5 of 255) darker, down to 0.
    EXPECT_TRUE(fills(refresh->backgroundImageForState(ControlStateHighlighted), 0, 151 - 25.5, 255 - 25.5));
    EXPECT_EQ(refresh->titleForState(ControlStateNormal), "刷新");
    EXPECT_EQ(refresh->titleLabel()->font(), Font::systemFontOfSize(14));
    EXPECT_EQ(refresh->titleColorForState(ControlStateNormal), Color::whiteColor());  // the button's default

    const auto& close = page->mm404CloseButton();
    EXPECT_EQ(fill(close->backgroundImageForState(ControlStateNormal)), (Pixel{240, 240, 240, 255}));
    EXPECT_TRUE(fills(close->backgroundImageForState(ControlStateHighlighted), 214.5, 214.5, 214.5));
    EXPECT_EQ(close->titleForState(ControlStateNormal), "关闭");
    EXPECT_EQ(close->titleLabel()->font(), Font::systemFontOfSize(14));
    EXPECT_EQ(close->titleColorForState(ControlStateNormal), kGrey);
}

struct Host : MM404H5ManagerDelegate, MM404H5ManagerSubTitleClickDelegate {
    int clicks = 0;
    void MM404H5ManagerDelegate_onSubTitleClickAction() override { ++clicks; }
};

TEST_F(MM404H5ViewTest, ManagerValuesApplyAtCreationAndTheLayoutPassRestoresTheBuiltInLook) {
    auto& manager = MM404H5Manager::sharedManager();
    const auto picture = std::make_shared<Image>(1, 1, 1, std::vector<std::uint32_t>{0xFF00FF00u});
    AttributedString title("Offline");
    title.addAttribute(AttributeName::Font, Font::boldSystemFontOfSize(30), {0, 7});
    const AttributedString subtitle("Check the network");
    const Color red = Color::colorWithRed(1, 0, 0, 1);
    const Color green = Color::colorWithRed(0, 0.5, 0, 1);
    manager.setImage(picture);
    manager.setAttrTitleString(title);
    manager.setAttrSubtitleString(subtitle);
    manager.setRefreshButtonBackgroundColor(red);
    manager.setRefreshButtonTitleColor(green);
    manager.setCloseButtonBackgroundColor(green);
    manager.setCloseButtonTitleColor(red);

    auto page = MM404H5View::initWithFrame({0, 0, 375, 667});
    EXPECT_EQ(page->mm404ImageView()->image(), picture);
    EXPECT_EQ(page->mm404TitleLable()->attributedText(), title);
    EXPECT_EQ(page->mm404SubTitleLable()->attributedText(), subtitle);
    EXPECT_EQ(fill(page->mm404RefreshButton()->backgroundImageForState(ControlStateNormal)), (Pixel{255, 0, 0, 255}));
    EXPECT_TRUE(fills(page->mm404RefreshButton()->backgroundImageForState(ControlStateHighlighted), 229.5, 0, 0));
    EXPECT_EQ(page->mm404RefreshButton()->titleColorForState(ControlStateNormal), green);
    EXPECT_TRUE(fills(page->mm404CloseButton()->backgroundImageForState(ControlStateNormal), 0, 127.5, 0));
    EXPECT_TRUE(fills(page->mm404CloseButton()->backgroundImageForState(ControlStateHighlighted), 0, 102, 0));
    EXPECT_EQ(page->mm404CloseButton()->titleColorForState(ControlStateNormal), red);

    for (int pass = 0; pass < 2; ++pass) {
        page->setNeedsLayout();
        page->layoutIfNeeded();
        EXPECT_NE(page->mm404ImageView()->image(), picture);
        EXPECT_EQ(page->mm404TitleLable()->text(), "网络无法连接");
        EXPECT_EQ(page->mm404SubTitleLable()->text(), "请检查您的  网络设置");
        EXPECT_EQ(fill(page->mm404RefreshButton()->backgroundImageForState(ControlStateNormal)),
                  (Pixel{15, 151, 255, 255}));
        EXPECT_EQ(page->mm404RefreshButton()->titleColorForState(ControlStateNormal), green);  // survives
        EXPECT_EQ(page->mm404CloseButton()->titleColorForState(ControlStateNormal), kGrey);
    }
}

TEST_F(MM404H5ViewTest, UpdatesIgnoreAbsentAndEmptyValues) {
    auto page = MM404H5View::initWithFrame({0, 0, 375, 667});
    const auto picture = page->mm404ImageView()->image();
    const auto title = page->mm404TitleLable()->attributedText();
    const auto refreshNormal = page->mm404RefreshButton()->backgroundImageForState(ControlStateNormal);
    page->update404ImageView(nullptr);
    page->update404Title(std::nullopt);
    page->update404Title(AttributedString(""));
    page->update404SubTitle(AttributedString(""));
    page->update404RefreshButtonBackgroundColor(std::nullopt, std::nullopt);
    page->update404CloseButtonBackgroundColor(std::nullopt, std::nullopt);
    EXPECT_EQ(page->mm404ImageView()->image(), picture);
    EXPECT_EQ(page->mm404TitleLable()->attributedText(), title);
    EXPECT_EQ(page->mm404SubTitleLable()->text(), "请检查您的  网络设置");
    EXPECT_EQ(page->mm404RefreshButton()->backgroundImageForState(ControlStateNormal), refreshNormal);
    EXPECT_EQ(page->mm404CloseButton()->titleColorForState(ControlStateNormal), kGrey);

    page->update404Title(AttributedString("x"));
    EXPECT_EQ(page->mm404TitleLable()->text(), "x");
    page->update404CloseButtonBackgroundColor(std::nullopt, kBlue);  // the title colour alone
    EXPECT_EQ(page->mm404CloseButton()->titleColorForState(ControlStateNormal), kBlue);
    EXPECT_EQ(fill(page->mm404CloseButton()->backgroundImageForState(ControlStateNormal)), (Pixel{240, 240, 240, 255}));
}

// Page delegates with any mix of the optional operations.
using Journal = std::vector<std::string>;
struct Refreshes : MM404ViewRefreshDelegate {
    Journal* journal = nullptr;
    void MM404ViewDelegate_RefreshCurrentPage() override { journal->push_back("refresh"); }
};
struct Closes : MM404ViewCloseDelegate {
    Journal* journal = nullptr;
    void MM404ViewDelegate_CloseCurrentPage() override { journal->push_back("close"); }
};
template <class... Operations>
struct Owner : MM404ViewDelegate, Operations... {
    explicit Owner([[maybe_unused]] Journal* journal) { ((Operations::journal = journal), ...); }
};
using Both = Owner<Refreshes, Closes>;
struct NotAPageDelegate : ScrollViewDelegate, MM404ViewRefreshDelegate {
    void MM404ViewDelegate_RefreshCurrentPage() override { ADD_FAILURE() << "not the page's delegate"; }
};

TEST_F(MM404H5ViewTest, ButtonsTellTheDelegateWhatItCanHear) {
    krcommon::test::LogCapture log;
    Journal journal;
    struct Row {
        const char* what;
        std::shared_ptr<MM404ViewDelegate> delegate;
        Journal expected;
    };
    const Row rows[] = {
        {"no delegate", nullptr, {}},
        {"neither operation", std::make_shared<Owner<>>(&journal), {}},
        {"refresh only", std::make_shared<Owner<Refreshes>>(&journal), {"refresh"}},
        {"close only", std::make_shared<Owner<Closes>>(&journal), {"close"}},
        {"both", std::make_shared<Both>(&journal), {"refresh", "close"}},
    };
    auto page = MM404H5View::initWithFrame({0, 0, 375, 667});
    for (const auto& row : rows) {
        journal.clear();
        page->setDelegate(row.delegate);
        EXPECT_EQ(page->delegate(), row.delegate);
        page->mm404RefreshButton()->simulateTap();
        page->mm404CloseButton()->simulateTap();
        EXPECT_EQ(journal, row.expected) << row.what;
    }

    // A freed delegate is gone; a scroll view delegate of another kind is no page delegate.
    auto both = std::make_shared<Both>(&journal);
    page->setDelegate(both);
    both.reset();
    journal.clear();
    page->mm404RefreshButton()->sendActionsForControlEvents(ControlEventTouchUpInside);
    EXPECT_EQ(page->delegate(), nullptr);
    auto stranger = std::make_shared<NotAPageDelegate>();
    page->ScrollView::setDelegate(stranger);
    EXPECT_EQ(page->delegate(), nullptr);
    page->mm404RefreshButton()->simulateTap();
    EXPECT_TRUE(journal.empty());

    // Only touch-up-inside counts; the buttons do not keep the page alive.
    page->setDelegate(std::make_shared<Both>(&journal));  // freed at once
    auto kept = std::make_shared<Both>(&journal);
    page->setDelegate(kept);
    page->mm404CloseButton()->sendActionsForControlEvents(ControlEventTouchDown | ControlEventTouchUpOutside);
    EXPECT_TRUE(journal.empty());
    const auto button = page->mm404CloseButton();
    std::weak_ptr<MM404H5View> watch = page;
    page.reset();
    EXPECT_TRUE(watch.expired());
    button->sendActionsForControlEvents(ControlEventTouchUpInside);
    EXPECT_TRUE(journal.empty());
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(MM404H5ViewTest, SubtitleTapsGoToTheManagersDelegateOrToTheSettings) {
    krcommon::test::LogCapture log;
    auto page = MM404H5View::initWithFrame({0, 0, 375, 667});
    const auto& label = page->mm404SubTitleLable();
    EXPECT_TRUE(label->isUserInteractionEnabled());
    ASSERT_EQ(label->gestureRecognizers().size(), 1u);
    auto tap = std::dynamic_pointer_cast<TapGestureRecognizer>(label->gestureRecognizers()[0]);
    ASSERT_TRUE(tap);

    auto host = std::make_shared<Host>();
    auto silent = std::make_shared<MM404H5ManagerDelegate>();
    struct Row {
        const char* what;
        std::shared_ptr<MM404H5ManagerDelegate> delegate;
        int clicks;
        std::size_t opened;
    };
    const Row rows[] = {
        {"no delegate", nullptr, 0, 1},
        {"delegate without the operation", silent, 0, 1},
        {"delegate with it", host, 1, 0},
    };
    using S = GestureRecognizerState;
    for (const auto& row : rows) {
        MM404H5Manager::sharedManager().setDelegate(row.delegate);
        host->clicks = 0;
        opened_.clear();
        // Every state reaches the page; only Ended (3) acts.
        for (S state : {S::Possible, S::Began, S::Changed, S::Cancelled, S::Failed}) {
            tap->setState(state);
            page->onSubTitleLabelTapGestureAction(tap.get());
        }
        EXPECT_EQ(host->clicks, 0) << row.what;
        EXPECT_TRUE(opened_.empty()) << row.what;
        tap->simulateTap();
        EXPECT_EQ(host->clicks, row.clicks) << row.what;
        EXPECT_EQ(opened_.size(), row.opened) << row.what;
        if (row.opened) {
            EXPECT_EQ(opened_[0], Application::OpenSettingsURLString);
        }
    }
    page->onSubTitleLabelTapGestureAction(nullptr);

    // The manager does not keep its delegate: once freed, the tap opens the settings.
    auto transient = std::make_shared<Host>();
    MM404H5Manager::sharedManager().setDelegate(transient);
    transient.reset();
    opened_.clear();
    tap->simulateTap();
    EXPECT_EQ(opened_, (std::vector<std::string>{"app-settings:"}));
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(MM404H5ViewTest, HideSettersHideWithoutStoringOrMovingAnything) {
    auto page = MM404H5View::initWithFrame({0, 0, 375, 667});
    page->layoutIfNeeded();
    const Rect refresh = page->mm404RefreshButton()->frame();
    page->setIsSubtitleLabelHidden(true);
    page->setIsRefreshButtonHidden(true);
    page->setNeedsLayout();
    page->layoutIfNeeded();
    EXPECT_TRUE(page->mm404SubTitleLable()->isHidden());
    EXPECT_TRUE(page->mm404RefreshButton()->isHidden());
    EXPECT_FALSE(page->isSubtitleLabelHidden());
    EXPECT_FALSE(page->isRefreshButtonHidden());
    EXPECT_EQ(page->mm404RefreshButton()->frame(), refresh);
    opened_.clear();
    std::dynamic_pointer_cast<TapGestureRecognizer>(page->mm404SubTitleLable()->gestureRecognizers()[0])->simulateTap();
    EXPECT_TRUE(opened_.empty()) << "a hidden subtitle cannot be tapped";
    page->setIsSubtitleLabelHidden(false);
    EXPECT_FALSE(page->mm404SubTitleLable()->isHidden());
}

TEST_F(MM404H5ViewTest, ColourHelpers) {
    auto page = MM404H5View::initWithFrame({0, 0, 100, 100});
    struct Row {
        std::array<double, 4> in, lighter, darker;
    };
    const Row rows[] = {
        {{0.95, 0.5, 0.0, 0.3}, {1.0, 0.6, 0.1, 0.3}, {0.85, 0.4, 0.0, 0.3}},
        {{0.05, 0.5, 1.0, 1.0}, {0.15, 0.6, 1.0, 1.0}, {0.0, 0.4, 0.9, 1.0}},
        {{0.0, 0.0, 0.0, 0.0}, {0.1, 0.1, 0.1, 0.0}, {0.0, 0.0, 0.0, 0.0}},
        {{0.9, 0.1, 1.0, 0.5}, {1.0, 0.2, 1.0, 0.5}, {0.8, 0.0, 0.9, 0.5}},
    };
    const auto parts = [](const std::optional<Color>& c) {
        std::array<double, 4> out{-1, -1, -1, -1};
        EXPECT_TRUE(c && c->getRed(out[0], out[1], out[2], out[3]));
        return out;
    };
    for (const auto& row : rows) {
        const Color in = Color::colorWithRed(row.in[0], row.in[1], row.in[2], row.in[3]);
        const auto l = parts(page->lighterColorForColor(in));
        const auto d = parts(page->darkerColorForColor(in));
        for (int i = 0; i < 4; ++i) {
            EXPECT_NEAR(l[i], row.lighter[i], 1e-12) << i;
            EXPECT_NEAR(d[i], row.darker[i], 1e-12) << i;
        }
    }
    // Grey colours have RGB components; a pattern and no colour give nothing.
    EXPECT_TRUE(page->darkerColorForColor(Color::whiteColor()));
    const Color pattern = Color::colorWithPatternImage(page->imageFromColor(Color::whiteColor()));
    EXPECT_FALSE(page->lighterColorForColor(pattern));
    EXPECT_FALSE(page->darkerColorForColor(pattern));
    EXPECT_FALSE(page->lighterColorForColor(std::nullopt));

    Screen::mainScreen().setScale(3);  // the one-point image ignores the screen
    const auto image = page->imageFromColor(Color::colorWithRed(0, 0, 1, 0.5));
    ASSERT_TRUE(image);
    EXPECT_EQ(image->size(), (Size{1, 1}));
    EXPECT_EQ(image->pixelAt(0, 0), (Pixel{0, 0, 255, 128}));
    EXPECT_EQ(page->imageFromColor(std::nullopt)->pixelAt(0, 0), (Pixel{0, 0, 0, 255}));
}

TEST_F(MM404H5ViewTest, RendersThePageToPNG) {
    test::TempFolder folder;
    auto page = MM404H5View::initWithFrame({0, 0, 375, 667});
    const std::string path = folder / "mm404.png";
    ASSERT_TRUE(Renderer::renderToPNG(*page, path, 2));
    std::cout << "rendered error page: " << path << "\n";
    auto png = std::make_unique<PngReader>(path);
    ASSERT_TRUE(png->ok());
    ASSERT_EQ(png->width(), 750);
    ASSERT_EQ(png->height(), 1334);
    // Points to pixels at scale 2.
    const auto px = [&](double x, double y) { return png->at(static_cast<int>(x * 2), static_cast<int>(y * 2)); };
    const auto inRect = [&](const Rect& r, const std::function<bool(const Rgba&)>& test) {
        return png->count(static_cast<int>(r.minX() * 2), static_cast<int>(r.minY() * 2),
                          static_cast<int>(r.maxX() * 2), static_cast<int>(r.maxY() * 2), test);
    };
    const auto white = [](const Rgba& c) { return near(c, 255, 255, 255); };

    EXPECT_TRUE(white(px(10, 10))) << "background";
    EXPECT_TRUE(white(px(187, 640))) << "below the close button";
    EXPECT_FALSE(white(px(187.5, 152.5))) << "the picture's middle";

    const Rect refresh = page->mm404RefreshButton()->frame();
    const Rect close = page->mm404CloseButton()->frame();
    for (const double dx : {-90.0, -40.0, 40.0, 90.0}) {
        EXPECT_TRUE(near(px(refresh.midX() + dx, refresh.midY()), 15, 151, 255)) << dx;
        EXPECT_TRUE(near(px(close.midX() + dx, close.midY()), 240, 240, 240)) << dx;
    }
    EXPECT_TRUE(white(px(refresh.minX() + 1, refresh.minY() + 1))) << "rounded corner";
    EXPECT_TRUE(white(px(close.maxX() - 1, close.maxY() - 1))) << "rounded corner";
    // The titles: white glyphs on blue, grey glyphs on light grey, in the middle.
    const Rect refreshText{refresh.midX() - 20, refresh.minY() + 5, 40, refresh.height() - 10};
    const Rect closeText{close.midX() - 20, close.minY() + 5, 40, close.height() - 10};
    EXPECT_GT(inRect(refreshText, white), 40);
    EXPECT_GT(inRect(closeText, [](const Rgba& c) { return near(c, 100, 100, 100, 10); }), 40);

    // The title: dark grey glyphs, nothing coloured.
    const Rect title = page->mm404TitleLable()->frame();
    EXPECT_GT(inRect(title, [](const Rgba& c) { return near(c, 100, 100, 100, 6); }), 100);
    EXPECT_EQ(inRect(title, [](const Rgba& c) { return c.b > c.r + 20; }), 0);
    // The subtitle: grey on the left, blue "网络设置" on the right.
    const Rect sub = page->mm404SubTitleLable()->frame();
    const auto blue = [](const Rgba& c) { return c.b > 200 && c.r < 120 && c.b > c.r + 80; };
    const auto grey = [](const Rgba& c) { return near(c, 100, 100, 100, 20); };
    const Rect left{sub.minX(), sub.minY(), sub.width() / 2 - 15, sub.height()};
    const Rect right{sub.midX() + 15, sub.minY(), sub.width() / 2 - 15, sub.height()};
    EXPECT_GT(inRect(left, grey), 50);
    EXPECT_EQ(inRect(left, blue), 0);
    EXPECT_GT(inRect(right, blue), 50);

    // Hiding the subtitle and the refresh button leaves white where they were.
    page->setIsSubtitleLabelHidden(true);
    page->setIsRefreshButtonHidden(true);
    ASSERT_TRUE(Renderer::renderToPNG(*page, path, 2));
    png = std::make_unique<PngReader>(path);
    EXPECT_TRUE(white(px(refresh.midX() + 90, refresh.midY())));
    EXPECT_EQ(inRect(sub, [&](const Rgba& c) { return !white(c); }), 0);
    EXPECT_TRUE(near(px(close.midX() + 90, close.midY()), 240, 240, 240));
}

TEST_F(MM404H5ViewTest, WorksWithoutItsPicture) {
    test::TempFolder empty;
    ::setenv("KRCOMMON_RESOURCES", empty.path().c_str(), 1);
    auto page = MM404H5View::initWithFrame({0, 0, 375, 667});
    page->layoutIfNeeded();
    EXPECT_EQ(page->mm404ImageView()->image(), nullptr);
    EXPECT_NEAR(page->mm404ImageView()->frame().width(), 105, 1e-9);
}

}  // namespace

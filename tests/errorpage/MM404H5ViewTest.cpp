// The error page on the real view layer: layout, manager values, the layout pass, taps and rendering.
#include <krcommon/errorpage/MM404H5View.h>

#include <krcommon/errorpage/MM404H5Manager.h>
#include <krcommon/platform/app/Application.h>
#include <krcommon/platform/core/Format.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>

using namespace krcommon;
using namespace krcommon::platform;

namespace {

class MM404H5ViewTest : public testing::Test {
protected:
    void SetUp() override {
        ::setenv("KRCOMMON_RESOURCES", KRCOMMON_SOURCE_RESOURCES, 1);  // the picture, from the source tree
        Application::shared().setOpenURLHandler([this](const URL& u) { return urls_.push_back(u.absoluteString()), true; });
        page_ = MM404H5View::initWithFrame({0, 0, 375, 667});
    }
    void TearDown() override {
        auto& m = MM404H5Manager::sharedManager();
        m.setImage(nullptr);
        m.setAttrTitleString(std::nullopt);
        m.setAttrSubtitleString(std::nullopt);
        m.setRefreshButtonBackgroundColor(std::nullopt);
        m.setRefreshButtonTitleColor(std::nullopt);
        m.setCloseButtonTitleColor(std::nullopt);
        m.setCloseButtonBackgroundColor(std::nullopt);
        m.setDelegate({});
        ::unsetenv("KRCOMMON_RESOURCES");
        Application::shared().setOpenURLHandler(nullptr);
    }
    std::shared_ptr<MM404H5View> page_;
    std::vector<std::string> urls_;
};

// The frames of the page's parts, in order, as "x y width height".
std::vector<std::string> frames(const MM404H5View& page) {
    std::vector<std::string> out;
    for (const auto& part : page.subviews()) {
        const Rect f = part->frame();
        out.push_back(format("%g %g %g %g", f.minX(), f.minY(), f.width(), f.height()));
    }
    return out;
}

Pixel fill(const std::shared_ptr<Image>& image) { return image ? image->pixelAt(0, 0) : Pixel{1, 2, 3, 4}; }

TEST_F(MM404H5ViewTest, StacksItsPartsAndKeepsTheHeightOffsetsOfItsCreation) {
    page_->layoutIfNeeded();
    EXPECT_EQ(frames(*page_), (std::vector<std::string>{"135 100.05 105 105", "37.5 215.05 300 30",
                                                        "37.5 245.05 300 25", "61.875 423.46 251.25 45.225",
                                                        "61.875 488.685 251.25 45.225"}));
    EXPECT_EQ(page_->contentSize(), (Size{375, 767}));
    EXPECT_NEAR(page_->mm404CloseButton()->cornerRadius(), 22.6125, 1e-9);
    EXPECT_TRUE(page_->mm404RefreshButton()->clipsToBounds() && page_->backgroundColor() == Color::whiteColor());

    page_->setFrame({0, 0, 500, 300});
    page_->mm404TitleLabelHeightConstraint()->setConstant(50);  // the owner may change the kept heights
    page_->mm404SubTitleLabelHeightConstraint()->setConstant(10);
    page_->layoutIfNeeded();
    EXPECT_EQ(frames(*page_), (std::vector<std::string>{"180 100.05 140 140", "50 250.05 400 50", "50 300.05 400 10",
                                                        "82.5 463.46 335 60.3", "82.5 543.76 335 60.3"}));
    EXPECT_NEAR(page_->mm404RefreshButton()->cornerRadius(), 30.15, 1e-9);  // applied again at layout
    EXPECT_EQ(page_->contentSize(), (Size{375, 767}));                      // set once, at creation
    ::setenv("KRCOMMON_RESOURCES", "/nonexistent", 1);  // without its picture the page still works
    EXPECT_EQ(MM404H5View::initWithFrame({0, 0, 375, 667})->mm404ImageView()->image(), nullptr);
}

TEST_F(MM404H5ViewTest, ManagerValuesApplyAtCreationAndTheLayoutPassRestoresTheBuiltInLook) {
    auto& manager = MM404H5Manager::sharedManager();
    const auto picture = std::make_shared<Image>(1, 1, 1, std::vector<std::uint32_t>{0xFF00FF00u});
    const Color red = Color::colorWithRed(1, 0, 0, 1), green = Color::colorWithRed(0, 0.5, 0, 1);
    manager.setImage(picture);
    manager.setAttrTitleString(AttributedString("Offline"));
    manager.setAttrSubtitleString(AttributedString("Check"));
    manager.setRefreshButtonBackgroundColor(red);
    manager.setRefreshButtonTitleColor(green);
    manager.setCloseButtonTitleColor(red);
    manager.setCloseButtonBackgroundColor(green);
    auto page = MM404H5View::initWithFrame({0, 0, 375, 667});
    const auto& refresh = page->mm404RefreshButton();
    EXPECT_EQ(page->mm404ImageView()->image(), picture);
    EXPECT_EQ(*page->mm404TitleLable()->text() + *page->mm404SubTitleLable()->text(), "OfflineCheck");
    EXPECT_EQ(fill(refresh->backgroundImageForState(ControlStateNormal)), (Pixel{255, 0, 0, 255}));
    EXPECT_EQ(fill(refresh->backgroundImageForState(ControlStateHighlighted)), (Pixel{230, 0, 0, 255}));  // darker
    EXPECT_EQ(page->mm404CloseButton()->titleColorForState(ControlStateNormal), red);
    EXPECT_EQ(fill(page->mm404CloseButton()->backgroundImageForState(ControlStateNormal)), (Pixel{0, 128, 0, 255}));
    page->layoutIfNeeded();
    EXPECT_EQ(page->mm404ImageView()->image()->size(), (Size{105, 105}));  // the built-in picture
    EXPECT_EQ(page->mm404TitleLable()->text(), "网络无法连接");
    EXPECT_EQ(page->mm404SubTitleLable()->attributedText()->runs().at(1).range, (Range{6, 5}));  // in blue
    EXPECT_EQ(fill(refresh->backgroundImageForState(ControlStateNormal)), (Pixel{15, 151, 255, 255}));
    EXPECT_EQ(fill(refresh->backgroundImageForState(ControlStateHighlighted)), (Pixel{0, 125, 230, 255}));
    EXPECT_EQ(refresh->titleColorForState(ControlStateNormal), green);  // not part of the built-in look
    EXPECT_NE(page->mm404CloseButton()->titleColorForState(ControlStateNormal), red);
    page->update404Title(AttributedString(""));  // empty or absent values change nothing
    page->update404ImageView(nullptr);
    EXPECT_EQ(page->mm404TitleLable()->text(), "网络无法连接");
    EXPECT_TRUE(page->mm404ImageView()->image());
}

// Page delegates with any mix of the optional operations, writing to one journal.
using Journal = std::vector<std::string>;
Journal journal;
struct Refreshes : MM404ViewRefreshDelegate {
    void MM404ViewDelegate_RefreshCurrentPage() override { journal.push_back("refresh"); }
};
struct Closes : MM404ViewCloseDelegate {
    void MM404ViewDelegate_CloseCurrentPage() override { journal.push_back("close"); }
};
template <class... Operations>
struct Owner : MM404ViewDelegate, Operations... {};

TEST_F(MM404H5ViewTest, ButtonsTellTheDelegateWhatItCanHear) {
    const std::pair<std::shared_ptr<MM404ViewDelegate>, Journal> rows[] = {
        {nullptr, {}}, {std::make_shared<Owner<>>(), {}}, {std::make_shared<Owner<Refreshes>>(), {"refresh"}},
        {std::make_shared<Owner<Closes>>(), {"close"}},
        {std::make_shared<Owner<Refreshes, Closes>>(), {"refresh", "close"}}};
    for (const auto& [delegate, expected] : rows) {
        journal.clear();
        page_->setDelegate(delegate);
        page_->mm404RefreshButton()->simulateTap();
        page_->mm404CloseButton()->simulateTap();
        page_->mm404CloseButton()->sendActionsForControlEvents(ControlEventTouchDown | ControlEventTouchUpOutside);
        EXPECT_EQ(journal, expected);
    }
    journal.clear();
    page_->setDelegate(std::make_shared<Owner<Closes>>());  // held weakly: gone at once
    page_->mm404CloseButton()->simulateTap();
    EXPECT_TRUE(journal.empty());
    const std::weak_ptr<MM404H5View> watch = page_;
    page_.reset();
    EXPECT_TRUE(watch.expired()) << "the buttons keep the page alive";
}

struct Host : MM404H5ManagerDelegate, MM404H5ManagerSubTitleClickDelegate {
    int clicks = 0;
    void MM404H5ManagerDelegate_onSubTitleClickAction() override { ++clicks; }
};

TEST_F(MM404H5ViewTest, SubtitleTapsGoToTheManagersDelegateOrToTheSettings) {
    const auto& label = page_->mm404SubTitleLable();
    const auto tap = std::dynamic_pointer_cast<TapGestureRecognizer>(label->gestureRecognizers().at(0));
    auto host = std::make_shared<Host>();
    const std::tuple<std::shared_ptr<MM404H5ManagerDelegate>, int, std::size_t> rows[] = {
        {nullptr, 0, 1}, {std::make_shared<MM404H5ManagerDelegate>(), 0, 1}, {host, 1, 0}};
    for (const auto& [delegate, clicks, settings] : rows) {
        MM404H5Manager::sharedManager().setDelegate(delegate);
        host->clicks = 0;
        urls_.clear();
        tap->setState(GestureRecognizerState::Began);  // only a recognised tap acts
        page_->onSubTitleLabelTapGestureAction(tap.get());
        tap->simulateTap();
        EXPECT_EQ(host->clicks, clicks);
        EXPECT_EQ(urls_, std::vector<std::string>(settings, Application::OpenSettingsURLString));
    }
    urls_.clear();
    MM404H5Manager::sharedManager().setDelegate(std::make_shared<Host>());  // held weakly: gone at once
    tap->simulateTap();
    page_->setIsSubtitleLabelHidden(true);  // hides, stores nothing, moves nothing
    page_->setIsRefreshButtonHidden(true);
    page_->layoutIfNeeded();
    EXPECT_TRUE(label->isHidden() && page_->mm404RefreshButton()->isHidden() && !page_->isSubtitleLabelHidden() &&
                !page_->isRefreshButtonHidden());
    EXPECT_NEAR(page_->mm404RefreshButton()->frame().minY(), 423.46, 1e-9);
    tap->simulateTap();
    EXPECT_EQ(urls_.size(), 1u) << "a hidden subtitle cannot be tapped";
}

TEST_F(MM404H5ViewTest, ColourHelpersStepByATenthWithinRange) {
    double r = -1, g = -1, b = -1, a = -1;  // each of red, green and blue up by 0.1, at most 1; alpha kept
    ASSERT_TRUE(page_->lighterColorForColor(Color::colorWithRed(0.95, 0.5, 0, 0.3)).value().getRed(r, g, b, a));
    EXPECT_THAT((std::vector{r, g, b, a}), testing::Pointwise(testing::DoubleNear(1e-12), {1.0, 0.6, 0.1, 0.3}));
    const Color pattern = Color::colorWithPatternImage(page_->imageFromColor(Color::whiteColor()));
    EXPECT_FALSE(page_->lighterColorForColor(pattern) || page_->darkerColorForColor(std::nullopt));
    const auto image = page_->imageFromColor(Color::colorWithRed(0, 0, 1, 0.5));
    EXPECT_TRUE(image->size() == (Size{1, 1}) && image->pixelAt(0, 0) == (Pixel{0, 0, 255, 128}));
}

}  // namespace

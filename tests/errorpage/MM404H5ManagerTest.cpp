#include <krcommon/errorpage/MM404H5Manager.h>

#include <gtest/gtest.h>

#include <memory>
#include <type_traits>

using namespace krcommon;

namespace {

struct Host : MM404H5ManagerDelegate {};

TEST(MM404H5Manager, IsASingletonThatCannotBeMadeDirectly) {
    auto& manager = MM404H5Manager::sharedManager();
    EXPECT_EQ(&manager, &MM404H5Manager::sharedManager());
    static_assert(!std::is_copy_constructible_v<MM404H5Manager>);
    try {
        MM404H5Manager second;
        ADD_FAILURE() << "a second manager was made";
    } catch (const MM404H5ManagerSingletonException& e) {
        const platform::Exception& base = e;
        EXPECT_EQ(base.name(), "Sigleton");
        EXPECT_EQ(base.reason(), "Use +[MM404H5Manager sharedManager]");
        EXPECT_STREQ(e.what(), "Use +[MM404H5Manager sharedManager]");
    }
    EXPECT_THROW(std::make_shared<MM404H5Manager>(), platform::Exception);
}

TEST(MM404H5Manager, HoldsItsValuesAndItsDelegateWeakly) {
    auto& manager = MM404H5Manager::sharedManager();
    const auto image = std::make_shared<platform::Image>(1, 1, 1, std::vector<std::uint32_t>{0xFFFFFFFFu});
    const platform::AttributedString title("标题");
    const auto red = platform::Color::colorWithRed(1, 0, 0, 1);
    manager.setImage(image);
    manager.setAttrTitleString(title);
    manager.setAttrSubtitleString(title);
    manager.setRefreshButtonBackgroundColor(red);
    manager.setRefreshButtonTitleColor(red);
    manager.setCloseButtonBackgroundColor(red);
    manager.setCloseButtonTitleColor(red);
    EXPECT_EQ(manager.image(), image);  // the object given, not a copy
    EXPECT_EQ(manager.attrTitleString(), title);
    EXPECT_EQ(manager.closeButtonTitleColor(), red);

    auto host = std::make_shared<Host>();
    manager.setDelegate(host);
    EXPECT_EQ(manager.delegate(), host);
    EXPECT_EQ(host.use_count(), 1);  // not kept alive by the manager
    host.reset();
    EXPECT_EQ(manager.delegate(), nullptr);

    // Back to the untouched state for the other tests.
    manager.setImage(nullptr);
    manager.setAttrTitleString(std::nullopt);
    manager.setAttrSubtitleString(std::nullopt);
    manager.setRefreshButtonBackgroundColor(std::nullopt);
    manager.setRefreshButtonTitleColor(std::nullopt);
    manager.setCloseButtonBackgroundColor(std::nullopt);
    manager.setCloseButtonTitleColor(std::nullopt);
    EXPECT_FALSE(manager.image() || manager.attrTitleString() || manager.attrSubtitleString() ||
                 manager.refreshButtonBackgroundColor() || manager.refreshButtonTitleColor() ||
                 manager.closeButtonBackgroundColor() || manager.closeButtonTitleColor() || manager.delegate());
}

}  // namespace

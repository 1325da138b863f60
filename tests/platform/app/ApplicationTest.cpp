#include <krcommon/platform/app/Application.h>

#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace krcommon::platform;

TEST(Application, OpensURLsThroughTheHostsHandlerOrLogsThem) {
    krcommon::test::LogCapture log;
    auto& app = Application::shared();
    EXPECT_EQ(&app, &Application::shared());
    const auto settings = URL::URLWithString(Application::OpenSettingsURLString);
    ASSERT_TRUE(settings);

    app.setOpenURLHandler(nullptr);
    EXPECT_FALSE(app.openURL(settings));
    EXPECT_FALSE(app.openURL(nullptr));
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"Application: cannot open URL app-settings:: no handler installed",
                                                     "Application: cannot open URL (null): no URL"}));

    std::vector<std::string> opened;
    app.setOpenURLHandler([&](const URL& url) {
        opened.push_back(url.absoluteString());
        return url.scheme() == "app-settings";
    });
    log.clear();
    EXPECT_TRUE(app.openURL(settings));
    EXPECT_FALSE(app.openURL(URL::URLWithString("https://example.test/")));
    EXPECT_EQ(opened, (std::vector<std::string>{"app-settings:", "https://example.test/"}));
    EXPECT_TRUE(log.lines().empty());
    app.setOpenURLHandler(nullptr);
}

#include <krcommon/platform/app/Application.h>

#include "support/LogCapture.h"

#include <gtest/gtest.h>

using namespace krcommon::platform;

// Without a handler nothing opens and the URL is logged; with one, its answer is the result.
TEST(Application, OpensURLsThroughTheHostsHandlerOrLogsThem) {
    krcommon::test::LogCapture log;
    auto& app = Application::shared();
    const auto settings = URL::URLWithString(Application::OpenSettingsURLString);
    app.setOpenURLHandler(nullptr);
    EXPECT_FALSE(app.openURL(settings));
    EXPECT_FALSE(app.openURL(nullptr));
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"Application: cannot open URL app-settings:: no handler installed",
                                                     "Application: cannot open URL (null): no URL"}));
    app.setOpenURLHandler([](const URL& url) { return url.scheme() == "https"; });
    EXPECT_FALSE(app.openURL(settings));
    EXPECT_TRUE(app.openURL(URL::URLWithString("https://example.test/")));
    app.setOpenURLHandler(nullptr);
}

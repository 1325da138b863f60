#include <krcommon/platform/net/URLResponse.h>

#include <gtest/gtest.h>

using namespace krcommon::platform;

TEST(HTTPURLResponse, MediaTypeAndLengthAreReadFromTheirFieldsAndStatusesNamedByClass) {
    const std::tuple<HTTPURLResponse::HeaderFields, std::optional<std::string>, std::int64_t> rows[] = {
        {{{"content-TYPE", " \tText/HTML ; charset=x"}, {"Content-Length", "12"}}, "text/html", 12},
        {{{"Content-Type", "application/json"}, {"Content-Length", "-1"}}, "application/json", -1},
        {{{"X-Type", "a/b"}, {"Content-Length", "12a"}}, std::nullopt, -1},
    };
    for (const auto& [fields, type, length] : rows) {
        const HTTPURLResponse response(nullptr, 200, fields);
        EXPECT_EQ(response.MIMEType(), type);
        EXPECT_EQ(response.expectedContentLength(), length);
    }
    const std::pair<std::int64_t, const char*> statuses[] = {{99, "unknown"}, {100, "informational"},
        {199, "informational"}, {202, "success"}, {299, "success"}, {300, "redirected"}, {399, "redirected"},
        {402, "client error"}, {499, "client error"}, {501, "server error"}, {599, "server error"}, {600, "unknown"}};
    for (const auto& [code, text] : statuses) EXPECT_EQ(HTTPURLResponse::localizedStringForStatusCode(code), text) << code;
}

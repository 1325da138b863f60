#include <krcommon/platform/net/URLRequest.h>

#include <gtest/gtest.h>

using namespace krcommon::platform;

TEST(URLRequest, Defaults) {
    const URLRequest absent;
    EXPECT_EQ(absent.URL(), nullptr);
    EXPECT_EQ(absent.HTTPMethod(), "GET");
    EXPECT_FALSE(absent.HTTPBody().has_value());
    EXPECT_EQ(absent.timeoutInterval(), 60.0);
    const URLRequest withURL(URL::URLWithString("https://h/p"), 5.5);
    EXPECT_EQ(withURL.URL()->absoluteString(), "https://h/p");
    EXPECT_EQ(withURL.timeoutInterval(), 5.5);
}

TEST(URLRequest, HeaderNamesIgnoreCaseAndKeepTheirFirstSpelling) {
    struct Step {
        char op;  // 's': setValue, 'a': addValue
        const char* field;
        const char* value;  // nullptr: remove
    };
    const std::pair<std::vector<Step>, URLRequest::HeaderFields> rows[] = {
        {{{'s', "Content-Type", "a"}, {'s', "content-type", "b"}}, {{"Content-Type", "b"}}},
        {{{'s', "X-A", "1"}, {'s', "X-B", "2"}, {'s', "x-a", "3"}}, {{"X-A", "3"}, {"X-B", "2"}}},
        {{{'a', "Accept", "a"}, {'a', "ACCEPT", "b"}, {'a', "accept", ""}}, {{"Accept", "a, b, "}}},
        {{{'s', "X-A", "1"}, {'s', "X-B", "2"}, {'s', "x-A", nullptr}}, {{"X-B", "2"}}},
        {{{'s', "Missing", nullptr}, {'s', "Empty", ""}}, {{"Empty", ""}}},
        {{{'s', "X-A", "1"}, {'s', "X-A", nullptr}, {'s', "x-a", "2"}}, {{"x-a", "2"}}},
        // Only ASCII letters fold: "_" and "-" differ, as do non-ASCII bytes.
        {{{'s', "X-A", "1"}, {'s', "X_A", "2"}, {'s', "\xC3\x89", "3"}, {'s', "\xC3\xA9", "4"}},
         {{"X-A", "1"}, {"X_A", "2"}, {"\xC3\x89", "3"}, {"\xC3\xA9", "4"}}},
    };
    for (const auto& [steps, expected] : rows) {
        URLRequest request;
        for (const auto& [op, field, value] : steps) {
            if (op == 'a') request.addValue(value, field);
            else request.setValue(value ? std::optional<std::string>(value) : std::nullopt, field);
        }
        EXPECT_EQ(request.allHTTPHeaderFields(), expected);
        for (const auto& [name, value] : expected) {
            std::string upper = name;
            for (auto& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
            EXPECT_EQ(request.valueForHTTPHeaderField(upper), value) << upper;
        }
    }
    URLRequest request;
    request.setValue("v", "X-A");
    EXPECT_EQ(request.valueForHTTPHeaderField("x-b"), std::nullopt);
    EXPECT_EQ(request.valueForHTTPHeaderField("X-A "), std::nullopt);
    // Replacing all fields applies them in order, so a later spelling replaces the value.
    request.setAllHTTPHeaderFields({{"Accept", "a"}, {"Host", "h"}, {"ACCEPT", "b"}});
    EXPECT_EQ(request.allHTTPHeaderFields(), (URLRequest::HeaderFields{{"Accept", "b"}, {"Host", "h"}}));
}

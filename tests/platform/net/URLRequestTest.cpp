#include <krcommon/platform/net/URLRequest.h>

#include <gtest/gtest.h>

using namespace krcommon::platform;

TEST(URLRequest, StartsAsAGetWithoutHeadersOrBody) {
    const URLRequest absent;
    EXPECT_EQ(absent.URL(), nullptr);
    EXPECT_EQ(absent.HTTPMethod(), "GET");
    EXPECT_TRUE(absent.allHTTPHeaderFields().empty());
    EXPECT_FALSE(absent.HTTPBody().has_value());
    EXPECT_EQ(absent.timeoutInterval(), 60.0);

    const URLRequest withURL(URL::URLWithString("https://h/p"), 5.5);
    ASSERT_NE(withURL.URL(), nullptr);
    EXPECT_EQ(withURL.URL()->absoluteString(), "https://h/p");
    EXPECT_EQ(withURL.timeoutInterval(), 5.5);
}

TEST(URLRequest, HeaderNamesIgnoreCaseAndKeepTheirFirstSpelling) {
    using Fields = URLRequest::HeaderFields;
    struct Step {
        enum { Set, Add, Remove } op;
        const char* field;
        const char* value;
    };
    struct Row {
        std::vector<Step> steps;
        Fields expected;
    };
    const Row rows[] = {
        {{{Step::Set, "Content-Type", "a"}, {Step::Set, "content-type", "b"}}, {{"Content-Type", "b"}}},
        {{{Step::Set, "X-A", "1"}, {Step::Set, "X-B", "2"}, {Step::Set, "x-a", "3"}}, {{"X-A", "3"}, {"X-B", "2"}}},
        {{{Step::Add, "Accept", "a"}, {Step::Add, "ACCEPT", "b"}, {Step::Add, "accept", ""}}, {{"Accept", "a, b, "}}},
        {{{Step::Set, "X-A", "1"}, {Step::Set, "X-B", "2"}, {Step::Remove, "x-A", nullptr}}, {{"X-B", "2"}}},
        {{{Step::Remove, "Missing", nullptr}, {Step::Set, "Empty", ""}}, {{"Empty", ""}}},
        {{{Step::Set, "X-A", "1"}, {Step::Remove, "X-A", nullptr}, {Step::Set, "x-a", "2"}}, {{"x-a", "2"}}},
        // Only ASCII letters fold: "_" and "-" differ, as do non-ASCII bytes.
        {{{Step::Set, "X-A", "1"}, {Step::Set, "X_A", "2"}, {Step::Set, "\xC3\x89", "3"}, {Step::Set, "\xC3\xA9", "4"}},
         {{"X-A", "1"}, {"X_A", "2"}, {"\xC3\x89", "3"}, {"\xC3\xA9", "4"}}},
    };
    for (const auto& row : rows) {
        URLRequest request;
        for (const auto& step : row.steps) {
            switch (step.op) {
                case Step::Set: request.setValue(std::string(step.value), step.field); break;
                case Step::Add: request.addValue(step.value, step.field); break;
                case Step::Remove: request.setValue(std::nullopt, step.field); break;
            }
        }
        EXPECT_EQ(request.allHTTPHeaderFields(), row.expected);
        for (const auto& [name, value] : row.expected) {
            std::string upper = name;
            for (auto& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
            if (upper == name) continue;  // non-ASCII: no other spelling to look up
            EXPECT_EQ(request.valueForHTTPHeaderField(upper), value) << upper;
        }
    }
    URLRequest request;
    request.setValue("v", "X-A");
    EXPECT_EQ(request.valueForHTTPHeaderField("x-b"), std::nullopt);
    EXPECT_EQ(request.valueForHTTPHeaderField("X-A "), std::nullopt);
}

TEST(URLRequest, ReplacingAllHeadersAppliesThemInOrder) {
    URLRequest request;
    request.setValue("old", "Old");
    request.setAllHTTPHeaderFields({{"Accept", "a"}, {"Host", "h"}, {"ACCEPT", "b"}});
    EXPECT_EQ(request.allHTTPHeaderFields(), (URLRequest::HeaderFields{{"Accept", "b"}, {"Host", "h"}}));
}

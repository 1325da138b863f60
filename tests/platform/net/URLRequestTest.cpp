#include <krcommon/platform/net/URLRequest.h>

#include <gtest/gtest.h>

using namespace krcommon::platform;

// Header names compare ignoring ASCII case only and keep the spelling they were first set with.
TEST(URLRequest, HeaderNamesIgnoreCaseAndKeepTheirFirstSpelling) {
    using Step = std::tuple<char, const char*, const char*>;  // 's': setValue (nullptr removes), 'a': addValue
    const std::pair<std::vector<Step>, URLRequest::HeaderFields> rows[] = {
        {{{'s', "Content-Type", "a"}, {'s', "content-type", "b"}}, {{"Content-Type", "b"}}},
        {{{'a', "Accept", "a"}, {'a', "ACCEPT", "b"}, {'a', "accept", ""}}, {{"Accept", "a, b, "}}},
        {{{'s', "X-A", "1"}, {'s', "X-B", "2"}, {'s', "x-A", nullptr}, {'s', "Missing", nullptr}}, {{"X-B", "2"}}},
        {{{'s', "X-A", "1"}, {'s', "X-A", nullptr}, {'s', "x-a", "2"}}, {{"x-a", "2"}}},
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
}

#include <krcommon/platform/net/HTTPCookieStorage.h>

#include <gtest/gtest.h>

#include <set>

using namespace krcommon::platform;

TEST(HTTPCookieStorage, ACookieGoesOnlyToItsDomainPathAndSchemeUntilItExpires) {
    HTTPCookieStorage store;
    const HTTPCookie kept{"k", "v=1", "Host.test", "/app", true, true, Date{4102444800}};  // every field read back
    for (const HTTPCookie& cookie : {HTTPCookie{"sub", "1", ".example.com", "/", false, false, std::nullopt},
                                     HTTPCookie{"exact", "2", "example.com", "/", false, false, std::nullopt},
                                     HTTPCookie{"old", "3", "example.com", "/", false, false, Date{1}}, kept}) {
        store.setCookie(cookie);
    }
    EXPECT_EQ(store.cookies().size(), 3u) << "an expired cookie is gone";
    const std::pair<const char*, std::set<std::string>> rows[] = {
        {"http://example.com/", {"sub", "exact"}}, {"http://www.example.com/x", {"sub"}}, {"http://wwwexample.com/", {}},
        {"https://HOST.test/app/x", {"k"}}, {"https://host.test/app", {"k"}}, {"http://host.test/app", {}},
        {"https://host.test/apple", {}}, {"https://host.test/", {}},
    };
    for (const auto& [url, names] : rows) {
        std::set<std::string> sent;
        for (const auto& cookie : store.cookiesForURL(*URL::URLWithString(url))) sent.insert(cookie.name);
        EXPECT_EQ(sent, names) << url;
    }
    EXPECT_EQ(store.cookiesForURL(*URL::URLWithString("https://host.test/app")).at(0), kept);
    store.removeAllCookies();
    EXPECT_TRUE(store.cookies().empty());
}

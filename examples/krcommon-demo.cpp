// krcommon-demo: a small host program showing what the library does today.
// It encodes parameter maps the way the SDK puts them on the wire, builds a
// GET and two POST requests with the manager's default headers, and lets the
// module's log lines go through a sink the host installs, as a real app would.

#include <krcommon/krcommon.h>

#include <cstdio>
#include <string>

using krcommon::KRSDKMemberHttpManager;
using krcommon::platform::Array;
using krcommon::platform::Dictionary;
using krcommon::platform::URLRequest;
using krcommon::platform::Value;

namespace {

// The host's log sink: the module's lines appear in the program's own output,
// in order with it, marked as log lines.
struct StdoutSink final : krcommon::platform::LogSink {
    void write(std::string_view line) override { std::printf("  log| %.*s\n", static_cast<int>(line.size()), line.data()); }
};

void show(const char* title, const URLRequest& request) {
    std::printf("\n== %s\n%s %s\n", title, request.HTTPMethod().c_str(),
                request.URL() ? request.URL()->absoluteString().c_str() : "(no URL)");
    for (const auto& [field, value] : request.allHTTPHeaderFields()) std::printf("%s: %s\n", field.c_str(), value.c_str());
    if (const auto& body = request.HTTPBody()) {
        std::printf("\n%.*s\n", static_cast<int>(body->size()), reinterpret_cast<const char*>(body->data()));
    }
    std::printf("(timeout %.0f s)\n", request.timeoutInterval());
}

}  // namespace

int main() {
    krcommon::platform::SystemLog::setSink(std::make_shared<StdoutSink>());
    std::printf("%s", reinterpret_cast<const char*>(krcommonVersionString));
    std::printf("krcommon %.1f\n", krcommonVersionNumber);

    const Dictionary login{{"account", "user@example.test"},
                           {"redirect", "https://app.example.test/back?x=1"},
                           {"nickname", "\xE5\xBC\xA0\xE4\xB8\x89 & co"},
                           {"appid", "100001"}};

    std::printf("\n== Encoding\nquery string: %s\n", krcommon::KRQueryStringFromParameters(login)->c_str());
    std::printf("one value:    %s\n", krcommon::KRParamsEncdoe("a b&c/\xC3\xA9")->c_str());

    auto manager = KRSDKMemberHttpManager::create();
    manager->setValue("krcommon-demo/1.0", "User-Agent");
    manager->setValue("zh-Hans", "Accept-Language");

    show("GET with the parameters in the URL",
         manager->requestWithMethod("GET", "https://account.example.test/api/profile?lang=zh", Value(login), false));
    show("POST with a form body",
         manager->requestWithMethod("POST", "https://account.example.test/api/login", Value(login), true));
    show("POST with a JSON body",
         manager->requestWithMethod("POST", "https://account.example.test/loginstat",
                                    Value(Dictionary{{"appid", "100001"},
                                                     {"statList", Array{Dictionary{{"code", 200}, {"ms", 35}}}}}),
                                    false));
    show("GET whose joined URL needs repair (a key with a space)",
         manager->requestWithMethod("GET", "https://account.example.test/p", Value(Dictionary{{"my key", "a b"}}),
                                    false));

    std::printf("\nLines marked log| are the module's own log, written through the host's sink.\n");
    return 0;
}

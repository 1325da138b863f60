// krcommon-demo: a small host application that uses the library the way a real
// app does. It starts an embedded account service (or talks to a real one with
// --account-host), configures the module as an app does at start, reports
// statistics until a batch uploads, sends a user-action report, uploads a file,
// meets an expired sign-in, renders the web error page, and prints what
// happened at each step.
//
//   krcommon-demo [--account-host HOST[:PORT]] [--home DIR] [--language en|zh-Hans]
//                 [--verbose] [--check]
//
// --check makes the exit status say whether every step succeeded (and, with the
// embedded service, whether it received the batch of five records).

#include <krcommon/krcommon.h>
#include <krcommon/platform/io/FileManager.h>
#include <krcommon/platform/io/JSONSerialization.h>
#include <krcommon/platform/io/PropertyList.h>
#include <krcommon/platform/ui/Renderer.h>

#include "demo/AccountService.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

using namespace krcommon;
using platform::Array;
using platform::Dictionary;
using platform::MainQueue;
using platform::Value;

namespace {

struct Options {
    std::optional<std::string> accountHost;
    std::optional<std::string> home;
    std::string language = "zh-Hans";
    bool verbose = false;
    bool check = false;
};

std::optional<Options> parse(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto next = [&]() -> std::optional<std::string> {
            if (i + 1 < argc) return std::string(argv[++i]);
            return std::nullopt;
        };
        if (arg == "--account-host") options.accountHost = next();
        else if (arg == "--home") options.home = next();
        else if (arg == "--language") options.language = next().value_or("");
        else if (arg == "--verbose") options.verbose = true;
        else if (arg == "--check") options.check = true;
        else return std::nullopt;
        if ((arg == "--account-host" && !options.accountHost) || (arg == "--home" && !options.home) ||
            options.language.empty())
            return std::nullopt;
    }
    return options;
}

// The host's log sink: every line of the module goes to a file in the data
// home, is kept for the demo to look at, and is echoed with --verbose.
class DemoLog final : public platform::LogSink {
public:
    DemoLog(const std::string& path, bool echo) : file_(path), echo_(echo) {}
    void write(std::string_view line) override {
        file_.write(line);
        if (echo_) std::printf("    log| %.*s\n", static_cast<int>(line.size()), line.data());
        std::lock_guard lock(mutex_);
        lines_.emplace_back(line);
    }
    /// Whether a line holding `fragment` has been written.
    bool contains(const std::string& fragment) {
        std::lock_guard lock(mutex_);
        for (const auto& line : lines_)
            if (line.find(fragment) != std::string::npos) return true;
        return false;
    }
    /// The first line holding `fragment`, waiting on the main queue up to `seconds`.
    std::optional<std::string> await(const std::string& fragment, double seconds) {
        std::optional<std::string> found;
        MainQueue::runUntil(
            [&] {
                std::lock_guard lock(mutex_);
                for (const auto& line : lines_)
                    if (line.find(fragment) != std::string::npos) return (found = line).has_value();
                return false;
            },
            seconds);
        return found;
    }

private:
    platform::FileLogSink file_;
    bool echo_;
    std::mutex mutex_;
    std::vector<std::string> lines_;
};

struct Step {
    std::string name;
    std::string sent;
    std::string back;
    double milliseconds = 0;
    bool ok = false;
};

class Clock {
public:
    [[nodiscard]] double elapsedMs() const {
        return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start_).count();
    }

private:
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

// One request's outcome as the caller's callbacks see it.
struct Outcome {
    bool done = false;
    bool succeeded = false;
    Value object;
    std::shared_ptr<platform::Error> error;
};

std::pair<KRSDKMemberHttpManager::Success, KRSDKMemberHttpManager::Failure> into(const std::shared_ptr<Outcome>& o) {
    return {[o](const auto&, const Value& object) { *o = {true, true, object, nullptr}; },
            [o](const auto&, const Value& object, const std::shared_ptr<platform::Error>& error) {
                *o = {true, false, object, error};
            }};
}

bool await(const std::shared_ptr<Outcome>& outcome, double seconds = 30) {
    return MainQueue::runUntil([&] { return outcome->done; }, seconds);
}

std::string compact(const Value& value) {
    if (auto json = platform::JSONSerialization::write(value, false)) return *json;
    return value.description();
}

std::size_t queuedRecords() {
    auto list = platform::PropertyList::readFile(KrCommonAdapter::statisInfoFilePathName());
    return list && list->array() ? list->array()->size() : 0;
}

// The query value with %XX escapes decoded.
std::string percentDecoded(std::string_view text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size() && std::isxdigit(static_cast<unsigned char>(text[i + 1])) &&
            std::isxdigit(static_cast<unsigned char>(text[i + 2]))) {
            out += static_cast<char>(std::stoi(std::string(text.substr(i + 1, 2)), nullptr, 16));
            i += 2;
        } else {
            out += text[i];
        }
    }
    return out;
}

void heading(int number, const char* title) { std::printf("\n[%d] %s\n", number, title); }

}  // namespace

int main(int argc, char** argv) {
    const auto options = parse(argc, argv);
    if (!options) {
        std::fprintf(stderr,
                     "usage: %s [--account-host HOST[:PORT]] [--home DIR] [--language en|zh-Hans] [--verbose] "
                     "[--check]\n",
                     argv[0]);
        return 2;
    }
    namespace fs = std::filesystem;
    const fs::path exeFolder = fs::canonical("/proc/self/exe").parent_path();
    const fs::path home = options->home ? fs::absolute(*options->home) : exeFolder / "demo-home";
    if (!options->home) fs::remove_all(home);  // a fresh home on every run
    fs::create_directories(home);

    // What an app container provides: the data home and the app's own identity.
    platform::SearchPaths::setApplicationHome(home.string());
    platform::SearchPaths::setBundleIdentifier("com.example.krdemo");
    platform::Bundle::setMainInfoDictionary(Dictionary{{"CFBundleIdentifier", "com.example.krdemo"},
                                                       {"CFBundleDisplayName", "KR Demo"},
                                                       {"CFBundleShortVersionString", "2.4.0"}});
    auto log = std::make_shared<DemoLog>((home / "krcommon.log").string(), options->verbose);
    platform::SystemLog::setSink(log);

    std::printf("krcommon %.1f demo: the common base module, used the way a host app uses it\n",
                krcommonVersionNumber);
    std::printf("  data home: %s\n  module log: %s\n", home.c_str(), (home / "krcommon.log").c_str());

    std::vector<Step> steps;

    // ---- 1. The account service.
    heading(1, "Account service");
    std::unique_ptr<demo::AccountService> service;
    std::string host;
    {
        Clock clock;
        if (options->accountHost) {
            host = *options->accountHost;
            std::printf("  using the deployment at https://%s\n", host.c_str());
        } else {
            service = std::make_unique<demo::AccountService>();
            host = service->host();
            std::printf("  embedded service at https://%s\n  its certificate is signed by nobody (SHA-256 %s)\n",
                        host.c_str(), service->fingerprint().substr(0, 23).c_str());
        }
        steps.push_back({"account service", service ? "start on 127.0.0.1" : "none (real deployment)",
                         "https://" + host, clock.elapsedMs(), true});
    }
    const std::string hostName = host.substr(0, host.rfind(':') == std::string::npos ? host.size() : host.rfind(':'));

    // ---- 2. The whitelist, as the SDK's other modules write it.
    heading(2, "Server whitelist");
    {
        Clock clock;
        const std::string entries = compact(Value(Array{Dictionary{{"type", "https"}, {"ip", hostName}}}));
        const Value whitelist(Dictionary{{"loginSrvIpList", entries}, {"portalSrvIpList", "[]"}});
        const std::string path = KRSDKMemberHttpManager::plistFilePath();
        const bool ok = platform::FileManager::createDirectoryAtPath(fs::path(path).parent_path().string(), true) &&
                        platform::PropertyList::writeFile(path, whitelist, true);
        std::printf("  %s\n  loginSrvIpList = %s\n", path.c_str(), entries.c_str());
        steps.push_back({"whitelist", hostName + " as https", ok ? "written" : "not written", clock.elapsedMs(), ok});
    }

    // ---- 3. What a host does at start.
    heading(3, "Host configuration");
    auto adapter = KrCommonAdapter::instance();
    {
        Clock clock;
        KIHostService::service().updateHostServers(Value(Dictionary{{key_for_accountHost, host}}));
        adapter->setLoginBaseInfo(Value(Dictionary{{"businessType", 1024},
                                                   {"protocolVersion", "200"},
                                                   {"clientVersion", "2.4.0"},
                                                   {"sdkVersion", "1.0.0"},
                                                   {"deviceId", "demo-device-0001"}}));
        platform::Bundle::setPreferredLanguages({options->language});
        auto strings = platform::Bundle::bundleWithPath(KRDEMO_RESOURCES);
        KIMutiLanguageServer::share().configi18nWithBundle(strings, "KRDemo", options->language);
        KRSDKLogger::enableDebugLog(true);
        auto& page = MM404H5Manager::sharedManager();
        page.setRefreshButtonBackgroundColor(KRSDKUtility::colorWith("#FF6A00"));
        page.setRefreshButtonTitleColor(platform::Color::whiteColor());
        page.setCloseButtonBackgroundColor(KRSDKUtility::colorWith("#EEEEEE"));
        const std::string origin = KIHostService::service().login_main_url_noCore();
        std::printf("  account origin: %s\n  base information: business type %lld, device demo-device-0001\n"
                    "  strings: %s/<language>.lproj/KRDemo.strings, language %s\n",
                    origin.c_str(), static_cast<long long>(adapter->businessType()), KRDEMO_RESOURCES,
                    options->language.c_str());
        const bool ok = strings != nullptr && origin == "https://" + host;
        steps.push_back({"host configuration", "hosts, base info, strings, debug log, page colours", origin,
                         clock.elapsedMs(), ok});
    }
    const std::string origin = KIHostService::service().login_main_url_noCore();

    // ---- 4. Statistics, until a batch uploads.
    heading(4, "Statistics");
    {
        Clock clock;
        for (int i = 1; i <= 5; ++i) {
            adapter->reportRequestStatInfo(Value(Dictionary{{"event", "login"},
                                                            {"seq", i},
                                                            {"result", i == 3 ? "fail" : "success"},
                                                            {"costMs", 120 + 17 * i}}));
            if (i < 5) std::printf("  record %d queued; the queue file holds %zu\n", i, queuedRecords());
        }
        std::printf("  record 5 queued; %s\n", adapter->reporting() ? "a batch is uploading" : "no upload started");
        const bool finished = MainQueue::runUntil([&] { return !adapter->reporting(); }, 30);
        const bool failed = log->contains("report statistics fail next time retry...");
        const bool fileGone = !platform::FileManager::fileExistsAtPath(KrCommonAdapter::statisInfoFilePathName());
        std::string back = finished ? (failed ? "upload failed, queue kept" : "uploaded, queue file deleted")
                                    : "no answer in 30 s";
        std::size_t batchSize = 0;
        if (service) {
            for (const auto& request : service->requests()) {
                if (request.path != demo::AccountService::statisticsPath) continue;
                auto body = platform::JSONSerialization::parse(request.body);
                if (!body || !body->dictionary()) continue;
                std::printf("  the service received POST %s with:\n", request.path.c_str());
                for (const auto& [key, value] : *body->dictionary()) {
                    if (key == "statList") {
                        batchSize = value.array() ? value.array()->size() : 0;
                        std::printf("    %-16s %zu records, seq", key.c_str(), batchSize);
                        if (value.array())
                            for (const auto& r : *value.array()) std::printf(" %s", r["seq"].description().c_str());
                        std::printf("\n");
                    } else {
                        std::printf("    %-16s %s\n", key.c_str(), value.description().c_str());
                    }
                }
            }
            back = "batch of " + std::to_string(batchSize) + " received; " + back;
        }
        std::printf("  queue file after: %s\n", fileGone ? "deleted" : "still there");
        steps.push_back({"statistics batch", "5 records, POST /loginstat", back, clock.elapsedMs(),
                         finished && !failed && fileGone && (!service || batchSize == 5)});
    }

    // ---- 5. A user-action report.
    heading(5, "User-action report");
    {
        Clock clock;
        adapter->reportActionCategory("login", "tap_login_button", Value(Dictionary{{"screen", "welcome page"}}));
        const auto line = log->await("[reportActionInfo]", 30);
        const bool ok = line && line->find("[info][reportActionInfo]=success") != std::string::npos;
        std::string extdata;
        if (service)
            for (const auto& request : service->requests())
                if (request.path == demo::AccountService::userActionPath) {
                    auto it = request.query.find("extdata");
                    if (it != request.query.end()) extdata = it->second;
                }
        // The JSON text holds quotes, which a URL may not, so the manager
        // encodes the whole query once more; decoding twice gives it back.
        if (!extdata.empty()) std::printf("  extdata: %s\n", percentDecoded(extdata).c_str());
        std::printf("  %s\n", ok ? "logged: [info][reportActionInfo]=success" : "no success logged in 30 s");
        steps.push_back({"user-action report", "GET /kruserstat login/tap_login_button",
                         ok ? "200, logged as success" : "failed", clock.elapsedMs(), ok});
    }

    // ---- 6. A multipart upload and an expired sign-in, as a sibling module does them.
    auto manager = KRSDKMemberHttpManager::create();
    heading(6, "Multipart upload");
    {
        Clock clock;
        const std::string text = "a small avatar stand-in\n";
        auto outcome = std::make_shared<Outcome>();
        auto [success, failure] = into(outcome);
        manager->uploadData(origin + demo::AccountService::uploadPath, Value(Dictionary{{"uid", "10001"}}),
                            platform::Data(text.begin(), text.end()), "avatar", success, failure);
        const bool answered = await(outcome);
        std::printf("  answer: %s\n", answered ? compact(outcome->object).c_str() : "none in 30 s");
        if (service)
            for (const auto& request : service->requests())
                if (request.path == demo::AccountService::uploadPath)
                    std::printf("  the service parsed %zu parts from %s\n", request.parts.size(),
                                request.contentType.substr(0, 30).c_str());
        steps.push_back({"multipart upload", "uid + 24-byte file", answered && outcome->succeeded ? "200" : "failed",
                         clock.elapsedMs(), answered && outcome->succeeded});
    }

    heading(7, "Expired sign-in");
    {
        Clock clock;
        bool notified = false;
        auto token = platform::NotificationCenter::defaultCenter().addObserverForName(
            SDK_INVALID_GRANT_NOTIFICATION_NAME, [&](const platform::Notification&) { notified = true; });
        auto outcome = std::make_shared<Outcome>();
        auto [success, failure] = into(outcome);
        manager->POST(origin + demo::AccountService::tokenPath, Value(),
                      Value(Dictionary{{"grant_type", "refresh_token"}, {"refresh_token", "expired-token"}}),
                      std::nullopt, true, success, failure);
        const bool answered = await(outcome);
        platform::NotificationCenter::defaultCenter().removeObserver(token);
        const std::string message = KIMutiLanguageServer::httpError(outcome->object, outcome->error);
        std::printf("  answer: %s\n  %s posted: %s\n  message for the user (%s): %s\n",
                    answered ? compact(outcome->object).c_str() : "none in 30 s",
                    SDK_INVALID_GRANT_NOTIFICATION_NAME, notified ? "yes" : "no", options->language.c_str(),
                    message.c_str());
        const bool ok = answered && !outcome->succeeded && notified;
        steps.push_back({"expired sign-in", "POST /v1/auth/token", ok ? "401 invalid_grant, notified" : "unexpected",
                         clock.elapsedMs(), ok});
    }

    // ---- 8. The web error page.
    heading(8, "Web error page");
    {
        Clock clock;
        const fs::path png = home / "mm404-page.png";
        auto page = MM404H5View::initWithFrame({{0, 0}, {375, 667}});
        page->layoutIfNeeded();
        const bool ok = platform::Renderer::renderToPNG(*page, png, 2);
        std::printf("  %s (375 x 667 points at scale 2)\n", ok ? png.c_str() : "rendering failed");
        steps.push_back({"error page", "375 x 667 @2x", ok ? "mm404-page.png" : "failed", clock.elapsedMs(), ok});
    }

    // ---- Summary.
    std::printf("\nSummary\n  %-20s %-52s %-46s %9s\n", "step", "sent", "came back", "ms");
    bool allOk = true;
    for (const auto& step : steps) {
        allOk = allOk && step.ok;
        std::printf("  %-20s %-52s %-46s %9.1f %s\n", step.name.c_str(), step.sent.c_str(), step.back.c_str(),
                    step.milliseconds, step.ok ? "ok" : "FAILED");
    }
    std::printf("\n%s: %zu of %zu steps succeeded\n", allOk ? "demo passed" : "demo failed",
                static_cast<std::size_t>(std::count_if(steps.begin(), steps.end(), [](const Step& s) { return s.ok; })),
                steps.size());
    return options->check && !allOk ? 1 : 0;
}

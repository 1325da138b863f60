// krcommon-demo: a small host application that uses the library the way a real
// app does. It starts an embedded account service (or talks to a real one with
// --account-host), configures the module as an app does at start, reports
// statistics until a batch uploads, sends a user-action report, uploads a file,
// meets an expired sign-in, renders the web error page, and prints what
// happened at each step. The exit status is 0 when every step succeeded, 1 when
// one failed and 2 for bad options.
//
//   krcommon-demo [--account-host HOST[:PORT]] [--home DIR] [--language TAG] [--verbose]

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
#include <exception>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

using namespace krcommon;
using platform::Array;
using platform::Dictionary;
using platform::MainQueue;
using platform::Value;

namespace {

constexpr const char* usage =
    "usage: krcommon-demo [--account-host HOST[:PORT]] [--home DIR] [--language TAG] [--verbose]\n"
    "  --account-host  run the steps against this deployment instead of the embedded service\n"
    "  --home          the data home (default: a fresh folder beside the program)\n"
    "  --language      the strings table's language, e.g. en or zh-Hans (the default)\n"
    "  --verbose       also print every line the module logs\n";

struct Options {
    std::optional<std::string> accountHost;
    std::optional<std::string> home;
    std::string language = "zh-Hans";
    bool verbose = false;
    bool help = false;
};

// HOST[:PORT] as a host dictionary names it: something "https://HOST[:PORT]/" parses to.
bool isHost(const std::string& text) {
    if (text.empty() || text.find_first_of("/?#@") != std::string::npos) return false;
    const auto url = platform::URL::URLWithString("https://" + text + "/");
    return url && url->host() && !url->host()->empty();
}

// The options, or the reason they cannot be used.
std::optional<Options> parse(int argc, char** argv, std::string& problem) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool takesValue = arg == "--account-host" || arg == "--home" || arg == "--language";
        if (takesValue && i + 1 == argc) {
            problem = arg + " needs a value";
            return std::nullopt;
        }
        if (arg == "--help" || arg == "-h") {
            options.help = true;
        } else if (arg == "--verbose") {
            options.verbose = true;
        } else if (arg == "--account-host") {
            options.accountHost = argv[++i];
            if (!isHost(*options.accountHost)) {
                problem = "\"" + *options.accountHost + "\" is not a HOST[:PORT]";
                return std::nullopt;
            }
        } else if (arg == "--home") {
            options.home = argv[++i];
            if (options.home->empty()) {
                problem = "--home needs a folder";
                return std::nullopt;
            }
        } else if (arg == "--language") {
            options.language = argv[++i];
            if (!platform::Bundle::languageTag(options.language)) {
                problem = "\"" + options.language + "\" names no language";
                return std::nullopt;
            }
        } else {
            problem = "unknown option " + arg;
            return std::nullopt;
        }
    }
    return options;
}

// "domain code: description", what a failed step shows of its error.
std::string describe(const std::shared_ptr<platform::Error>& error) {
    if (!error) return "no error given";
    return error->domain() + " " + std::to_string(error->code()) + ": " + error->localizedDescription();
}

// The summary's short form of a failed request's outcome.
std::string shortly(const std::shared_ptr<platform::Error>& error) {
    return error ? "failed: " + error->domain() + " " + std::to_string(error->code()) : "failed: no answer";
}

// The adapter's manager, which also keeps the last transport error of its
// requests: the adapter itself only logs that an upload failed, not why.
class RecordingManager final : public KRSDKMemberHttpManager {
public:
    void didCompleteWithError(const std::shared_ptr<platform::URLSession>& session,
                              const std::shared_ptr<platform::URLSessionTask>& task,
                              const std::shared_ptr<platform::Error>& error) override {
        if (error) {
            std::lock_guard lock(mutex_);
            lastError_ = error;
        }
        KRSDKMemberHttpManager::didCompleteWithError(session, task, error);
    }
    std::shared_ptr<platform::Error> lastError() {
        std::lock_guard lock(mutex_);
        return lastError_;
    }

private:
    std::mutex mutex_;
    std::shared_ptr<platform::Error> lastError_;
};

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
    /// How many lines holding `fragment` have been written.
    std::size_t count(const std::string& fragment) {
        std::lock_guard lock(mutex_);
        return static_cast<std::size_t>(std::count_if(lines_.begin(), lines_.end(), [&](const std::string& line) {
            return line.find(fragment) != std::string::npos;
        }));
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

// Prints what came back: the body when there is one, and the error of a failure.
void printOutcome(const Outcome& outcome) {
    if (!outcome.done) {
        std::printf("  no answer in 30 s\n");
        return;
    }
    if (!outcome.object.isNil()) std::printf("  answer: %s\n", compact(outcome.object).c_str());
    if (!outcome.succeeded) std::printf("  error: %s\n", describe(outcome.error).c_str());
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

// The share of the picture's square, as rendered at `scale`, that is not the page's
// white: the drawn picture covers most of it, a missing one none.
double pictureCoverage(const platform::Image& page, const platform::Rect& frame, double scale) {
    const int x0 = static_cast<int>(frame.minX() * scale), y0 = static_cast<int>(frame.minY() * scale);
    const int x1 = static_cast<int>(frame.maxX() * scale), y1 = static_cast<int>(frame.maxY() * scale);
    std::size_t drawn = 0, all = 0;
    for (int y = y0; y < y1; ++y) {
        for (int x = x0; x < x1; ++x, ++all) {
            const auto p = page.pixelAt(x, y);
            if (p.alpha != 0 && (p.red < 250 || p.green < 250 || p.blue < 250)) ++drawn;
        }
    }
    return all == 0 ? 0 : static_cast<double>(drawn) / static_cast<double>(all);
}

void heading(int number, const char* title) { std::printf("\n[%d] %s\n", number, title); }

int run(const Options& options) {
    namespace fs = std::filesystem;
    std::error_code error;
    const fs::path exeFolder = fs::canonical("/proc/self/exe").parent_path();
    const fs::path home = options.home ? fs::absolute(*options.home) : exeFolder / "demo-home";
    if (!options.home) fs::remove_all(home, error);  // a fresh home on every run
    fs::create_directories(home, error);
    if (error || !fs::is_directory(home)) {
        std::fprintf(stderr, "krcommon-demo: cannot use %s as the data home: %s\n", home.c_str(),
                     error ? error.message().c_str() : "not a folder");
        return 2;
    }

    // What an app container provides: the data home and the app's own identity.
    platform::SearchPaths::setApplicationHome(home.string());
    platform::SearchPaths::setBundleIdentifier("com.example.krdemo");
    platform::Bundle::setMainInfoDictionary(Dictionary{{"CFBundleIdentifier", "com.example.krdemo"},
                                                       {"CFBundleDisplayName", "KR Demo"},
                                                       {"CFBundleShortVersionString", "2.4.0"}});
    auto log = std::make_shared<DemoLog>((home / "krcommon.log").string(), options.verbose);
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
        if (options.accountHost) {
            host = *options.accountHost;
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
    const auto hostURL = platform::URL::URLWithString("https://" + host + "/");
    const std::string hostName = hostURL->host().value_or(host);

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
        if (!ok) std::printf("  cannot write it (see the module log)\n");
        steps.push_back({"whitelist", hostName + " as https", ok ? "written" : "not written", clock.elapsedMs(), ok});
    }

    // ---- 3. What a host does at start.
    heading(3, "Host configuration");
    auto adapter = KrCommonAdapter::instance();
    auto statisticsManager = std::make_shared<RecordingManager>();
    {
        Clock clock;
        KIHostService::service().updateHostServers(Value(Dictionary{{key_for_accountHost, host}}));
        statisticsManager->operationQueue()->setMaxConcurrentOperationCount(-1);  // as the adapter's own
        adapter->setHttpManager(statisticsManager);
        adapter->setLoginBaseInfo(Value(Dictionary{{"businessType", 1024},
                                                   {"protocolVersion", "200"},
                                                   {"clientVersion", "2.4.0"},
                                                   {"sdkVersion", "1.0.0"},
                                                   {"deviceId", "demo-device-0001"}}));
        platform::Bundle::setPreferredLanguages({options.language});
        auto strings = platform::Bundle::bundleWithPath(KRDEMO_RESOURCES);
        KIMutiLanguageServer::share().configi18nWithBundle(strings, "KRDemo", options.language);
        KRSDKLogger::enableDebugLog(true);
        auto& page = MM404H5Manager::sharedManager();
        page.setRefreshButtonBackgroundColor(KRSDKUtility::colorWith("#FF6A00"));
        page.setRefreshButtonTitleColor(platform::Color::whiteColor());
        page.setCloseButtonBackgroundColor(KRSDKUtility::colorWith("#EEEEEE"));
        const std::string origin = KIHostService::service().login_main_url_noCore();
        std::printf("  account origin: %s\n  base information: business type %lld, device demo-device-0001\n"
                    "  strings: %s/<language>.lproj/KRDemo.strings, language %s\n",
                    origin.c_str(), static_cast<long long>(adapter->businessType()), KRDEMO_RESOURCES,
                    options.language.c_str());
        const std::string chosen = strings ? strings->preferredLocalization() : "";
        if (strings && chosen != *platform::Bundle::languageTag(options.language))
            std::printf("  no strings table in \"%s\": falling back to \"%s\" (have: %s)\n", options.language.c_str(),
                        chosen.c_str(), compact(Value([&] {
                                             Array names;
                                             for (const auto& name : strings->localizations()) names.emplace_back(name);
                                             return names;
                                         }()))
                                            .c_str());
        const bool ok = strings != nullptr && origin == "https://" + host;
        steps.push_back({"host configuration", "hosts, base info, strings, debug log, page colours", origin,
                         clock.elapsedMs(), ok});
    }
    const std::string origin = KIHostService::service().login_main_url_noCore();

    // ---- 4. Statistics, until a batch uploads. Each record's fate is read from what
    // the library did: the queue file, the batch flag and its "is reporting...." line.
    heading(4, "Statistics");
    {
        Clock clock;
        std::size_t batchRecords = 0;
        const std::size_t waiting = queuedRecords();
        if (waiting > 0) std::printf("  the queue file already holds %zu records from an earlier run\n", waiting);
        for (int i = 1; i <= 5; ++i) {
            const bool wasReporting = adapter->reporting();
            const std::size_t before = queuedRecords();
            const std::size_t dropsBefore = log->count("is reporting....");
            adapter->reportRequestStatInfo(Value(Dictionary{{"event", "login"},
                                                            {"seq", i},
                                                            {"result", i == 3 ? "fail" : "success"},
                                                            {"costMs", 120 + 17 * i}}));
            const std::size_t after = queuedRecords();
            if (log->count("is reporting....") > dropsBefore) {
                std::printf("  record %d dropped: a batch was in flight\n", i);
            } else if (!wasReporting && adapter->reporting()) {
                batchRecords = after;
                std::printf("  record %d queued; the queue (%zu records) went up as one batch\n", i, after);
            } else if (after == 0 && before > 0) {
                std::printf("  record %d queued; the queue passed fifty records and was discarded\n", i);
            } else {
                std::printf("  record %d queued; the queue file holds %zu\n", i, after);
            }
        }
        bool ok = false;
        std::string back = "no batch went up";
        if (batchRecords > 0) {
            const bool finished = MainQueue::runUntil([&] { return !adapter->reporting(); }, 30);
            const bool failed = log->count("report statistics fail next time retry...") > 0;
            const bool fileGone =
                !platform::FileManager::fileExistsAtPath(KrCommonAdapter::statisInfoFilePathName());
            std::size_t received = 0;
            if (service) {
                for (const auto& request : service->requests()) {
                    if (request.path != demo::AccountService::statisticsPath) continue;
                    auto body = platform::JSONSerialization::parse(request.body);
                    if (!body || !body->dictionary()) continue;
                    std::printf("  the service received POST %s with:\n", request.path.c_str());
                    for (const auto& [key, value] : *body->dictionary()) {
                        if (key == "statList") {
                            received = value.array() ? value.array()->size() : 0;
                            std::printf("    %-16s %zu records, seq", key.c_str(), received);
                            if (value.array())
                                for (const auto& r : *value.array()) std::printf(" %s", r["seq"].description().c_str());
                            std::printf("\n");
                        } else {
                            std::printf("    %-16s %s\n", key.c_str(), value.description().c_str());
                        }
                    }
                }
            }
            if (!finished) {
                back = "no answer in 30 s";
            } else if (failed) {
                back = statisticsManager->lastError() ? shortly(statisticsManager->lastError()) + ", queue kept"
                                                      : "upload failed, queue kept";
                std::printf("  upload failed: %s\n  the records stay queued for the next batch\n",
                            statisticsManager->lastError() ? describe(statisticsManager->lastError()).c_str()
                                                           : "the service refused it");
            } else {
                back = "batch of " + std::to_string(batchRecords) + " uploaded";
            }
            std::printf("  queue file after: %s\n", fileGone ? "deleted" : "still there");
            ok = finished && !failed && fileGone && (!service || received == batchRecords);
        }
        steps.push_back({"statistics batch", "5 records, POST /loginstat", back, clock.elapsedMs(), ok});
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
        // The line's first part: the outcome, and for a failure the error's domain, code and text.
        std::printf("  logged: %s\n",
                    line ? line->substr(0, std::min(line->find('\n'), line->find(" UserInfo="))).c_str()
                         : "nothing in 30 s");
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
        await(outcome);
        printOutcome(*outcome);
        if (service)
            for (const auto& request : service->requests())
                if (request.path == demo::AccountService::uploadPath)
                    std::printf("  the service parsed %zu parts from %s\n", request.parts.size(),
                                request.contentType.substr(0, 30).c_str());
        const bool ok = outcome->done && outcome->succeeded;
        steps.push_back(
            {"multipart upload", "uid + 24-byte file", ok ? "200" : shortly(outcome->error), clock.elapsedMs(), ok});
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
        await(outcome);
        platform::NotificationCenter::defaultCenter().removeObserver(token);
        printOutcome(*outcome);
        const std::string message = KIMutiLanguageServer::httpError(outcome->object, outcome->error);
        std::printf("  %s posted: %s\n  message for the user (%s): %s\n", SDK_INVALID_GRANT_NOTIFICATION_NAME,
                    notified ? "yes" : "no", options.language.c_str(), message.c_str());
        const bool ok = outcome->done && !outcome->succeeded && notified;
        steps.push_back({"expired sign-in", "POST /v1/auth/token",
                         ok ? "401 invalid_grant, notified" : notified ? "notified, no failure" : shortly(outcome->error),
                         clock.elapsedMs(), ok});
    }

    // ---- 8. The web error page.
    heading(8, "Web error page");
    {
        Clock clock;
        const fs::path png = home / "mm404-page.png";
        constexpr double scale = 2;
        auto page = MM404H5View::initWithFrame({{0, 0}, {375, 667}});
        const auto image = platform::Renderer::renderImage(*page, scale);
        const bool written = image && image->writeToFile(png);
        const double coverage = image ? pictureCoverage(*image, page->mm404ImageView()->frame(), scale) : 0;
        const bool pictured = coverage > 0.5;
        std::printf("  %s (375 x 667 points at scale 2)\n", written ? png.c_str() : "rendering failed");
        std::printf("  picture: %s (%.0f %% of its square drawn)\n", pictured ? "drawn" : "MISSING", coverage * 100);
        steps.push_back({"error page", "375 x 667 @2x",
                         !written ? "failed" : pictured ? "mm404-page.png" : "mm404-page.png, no picture",
                         clock.elapsedMs(), written && pictured});
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
    platform::SystemLog::setSink(nullptr);
    return allOk ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    // Line by line, so that a pipe or a file gets every line as it is printed.
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    std::string problem;
    const auto options = parse(argc, argv, problem);
    if (!options) {
        std::fprintf(stderr, "krcommon-demo: %s (--help shows the options)\n", problem.c_str());
        return 2;
    }
    if (options->help) {
        std::fputs(usage, stdout);
        return 0;
    }
    try {
        return run(*options);
    } catch (const std::exception& e) {
        std::fflush(stdout);
        std::fprintf(stderr, "krcommon-demo: %s\n", e.what());
        return 1;
    }
}

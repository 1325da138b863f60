#include "http/HttpTestSupport.h"
#include "support/LogCapture.h"
#include "support/TestServer.h"

#include <krcommon/http/KRSDKResponseHandler.h>
#include <krcommon/platform/app/NotificationCenter.h>
#include <krcommon/platform/io/JSONSerialization.h>

namespace krcommon {
namespace {

using namespace platform;

// An answer and what the caller gets: the object (for "image" the picture's "data"), the error as "domain code"
// and whether it carries the parser's error, invalid-grant notifications before the callback, the logged text.
struct AnswerRow {
    const char* name; int status; std::string body; std::optional<std::string> respType;
    Value object; std::string error; bool underlying; int notifications; std::optional<std::string> logged;
    friend void PrintTo(const AnswerRow& r, std::ostream* os) { *os << r.name; }
};

class HandlerAnswerTest : public ::testing::TestWithParam<AnswerRow> {};

// What a caller of the manager gets for each kind of answer.
TEST_P(HandlerAnswerTest, CallerGetsTheObjectAndErrorForTheAnswer) {
    const auto& row = GetParam();
    auto server = test::TestServer::http();
    server->route("GET", "/answer", [&row](const auto&, auto& res) {
        res.status = row.status;
        res.set_content(row.body, "application/json");
    }).start();
    int notifications = 0, seenByCallback = -1;
    auto token = NotificationCenter::defaultCenter().addObserverForName(SDK_INVALID_GRANT_NOTIFICATION_NAME, [&](const auto& n) {
        notifications += Value(n.userInfo()) == Value(Dictionary{{"error", "invalid_grant"}}) ? 1 : 100;
    });
    auto manager = KRSDKMemberHttpManager::create();
    test::LogCapture capture;
    const auto noting = [&](auto then) { return [&, then](const auto&... a) { seenByCallback = notifications, then(a...); }; };
    const auto outcome = test::run(*manager, [&](auto success, auto failure) {
        manager->GET(server->origin("http") + "/answer", Value(), Value(), row.respType, noting(success), noting(failure));
    });
    NotificationCenter::defaultCenter().removeObserver(token);
    EXPECT_EQ(notifications, row.notifications);
    EXPECT_EQ(seenByCallback, row.notifications);
    Value object = outcome->object;
    if (row.respType == "image") {  // the picture comes with the cookies of the session that fetched it
        EXPECT_EQ(object["cookie"].objectAs<HTTPCookieStorage>(), manager->session()->configuration().HTTPCookieStorage());
        object = object["data"];
    }
    EXPECT_EQ(object, row.object) << outcome->object.description();
    EXPECT_EQ(capture.count("DEBUG-KRSDKResponseHandler-") + capture.count("]=>http received :" + row.logged.value_or("")),
              row.logged ? 2u : 0u);
    const auto& error = outcome->error;
    EXPECT_EQ(error ? error->domain() + " " + std::to_string(error->code()) : "", row.error);
    if (!error) return;
    EXPECT_EQ(error->userInfo()["URL"].description(), server->origin("http") + "/answer");
    EXPECT_EQ(error->userInfo()["errorResponse"].objectAs<URLResponse>(), outcome->task->response());
    EXPECT_EQ(error->userInfo().contains(NSUnderlyingErrorKey), row.underlying);
}

const Value kNil;
const std::string kNull = "KRSDKResponseDataIsNull 600", kFormat = "KRSDKResponseDataFromatError 600",
                  kStatus = "KRSDKResponseHttpCodeError ";
const char* kGrant = R"({"error":"invalid_grant","e":1})";
INSTANTIATE_TEST_SUITE_P(
    Table, HandlerAnswerTest,
    ::testing::Values(
        AnswerRow{"JsonObject", 200, R"({"a":[1]})", std::nullopt, Value(Dictionary{{"a", Array{1}}}), "", false, 0, "{"},
        AnswerRow{"LastAcceptedStatus", 299, "[1]", "json", Value(Array{1}), "", false, 0, "[1]"},
        AnswerRow{"FirstRefusedStatus", 300, "[1]", "json", kNil, kStatus + "300", false, 0, "[1]"},
        AnswerRow{"OneSpace", 200, " ", std::nullopt, kNil, kNull, false, 0, " "},
        AnswerRow{"Empty", 200, "", "json", kNil, kNull, false, 0, ""},
        AnswerRow{"NotJson", 200, "hello", "json", Value("hello"), kFormat, true, 0, "hello"},
        AnswerRow{"NotText", 200, "ok\xFF", "string", Value(Data{'o', 'k', 0xFF}), kFormat, false, 0, "(null)"},
        AnswerRow{"UnknownType", 200, "{}", "xml", Value("{}"), kFormat, false, 0, "{}"},
        AnswerRow{"Text", 200, "plain", "string", Value("plain"), "", false, 0, "plain"},
        AnswerRow{"ImageUnlogged", 200, "\x89PNG", "image", Value(Data{0x89, 'P', 'N', 'G'}), "", false, 0, std::nullopt},
        AnswerRow{"ImageEmpty", 200, "", "image", Value(""), kNull, false, 0, std::nullopt},
        AnswerRow{"GrantReportIsParsed", 401, kGrant, std::nullopt, *JSONSerialization::parse(kGrant), kStatus + "401", false, 1, "{"},
        AnswerRow{"GrantWithErrorCode", 401, R"({"error":"INVALID_GRANT","errorCode":7})", {}, kNil, kStatus + "401", false, 1, "{"},
        AnswerRow{"OtherErrorReport", 404, R"({"error":"gone"})", {}, Value(Dictionary{{"error", "gone"}}), kStatus + "404", false, 0, "{"},
        AnswerRow{"ServerError", 500, "oops", std::nullopt, kNil, kStatus + "500", false, 0, "oops"},
        AnswerRow{"GrantOnSuccess", 200, R"({"error":"Invalid_Grant","errorCode":1})", {},
                  Value(Dictionary{{"error", "Invalid_Grant"}, {"errorCode", 1}}), "", false, 1, "{"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(KRSDKResponseHandlerTest, AnAnswerWithoutURLIsValidWhateverItsStatus) {
    const auto answer = std::make_shared<HTTPURLResponse>(nullptr, 500, HTTPURLResponse::HeaderFields{});
    EXPECT_TRUE(KRSDKResponseHandler().validateResponse(answer, {}, nullptr));
}

}  // namespace
}  // namespace krcommon

#include "platform/io/TempFolder.h"
#include "support/LogCapture.h"

#include <krcommon/http/KRSDKResponseHandler.h>
#include <krcommon/platform/dispatch/MainQueue.h>
#include <krcommon/platform/io/FileManager.h>

#include <gtest/gtest.h>

namespace krcommon {
namespace {

using platform::Data;
using platform::Dictionary;
using platform::Value;

std::shared_ptr<platform::HTTPURLResponse> response(const char* url, std::int64_t status) {
    return std::make_shared<platform::HTTPURLResponse>(url ? platform::URL::URLWithString(url) : nullptr, status,
                                                       platform::HTTPURLResponse::HeaderFields{});
}

TEST(KRSDKResponseHandlerTest, StartsWithAnEmptyBufferAndTheTwoHundredsAccepted) {
    KRSDKResponseHandler handler;
    ASSERT_TRUE(handler.mutableData().has_value());
    EXPECT_TRUE(handler.mutableData()->empty());
    EXPECT_FALSE(handler.respType());
    ASSERT_TRUE(handler.acceptableStatusCodes());
    EXPECT_EQ(handler.acceptableStatusCodes()->count(), 100);
    EXPECT_TRUE(handler.acceptableStatusCodes()->containsIndex(200));
    EXPECT_TRUE(handler.acceptableStatusCodes()->containsIndex(299));
    EXPECT_FALSE(handler.acceptableStatusCodes()->containsIndex(300));
    EXPECT_FALSE(handler.acceptableStatusCodes()->containsIndex(199));
}

TEST(KRSDKResponseHandlerTest, ValidationLooksAtStatusAndURLOnly) {
    KRSDKResponseHandler handler;
    const struct {
        std::shared_ptr<platform::URLResponse> response;
        bool valid;
    } rows[] = {
        {response("https://h/a", 200), true},
        {response("https://h/a", 299), true},
        {response("https://h/a", 304), false},
        {response("https://h/a", 500), false},
        {response(nullptr, 500), true},  // no URL: always valid
        {std::make_shared<platform::URLResponse>(platform::URL::URLWithString("file:///x"), std::nullopt, -1), true},
        {nullptr, true},
    };
    for (const auto& row : rows) {
        std::shared_ptr<platform::Error> error;
        EXPECT_EQ(handler.validateResponse(row.response, Data{}, &error), row.valid);
        EXPECT_EQ(error != nullptr, !row.valid);
        if (error) {
            EXPECT_EQ(error->domain(), KRSDKResponseHttpCodeError);
            EXPECT_EQ(error->code(), std::dynamic_pointer_cast<platform::HTTPURLResponse>(row.response)->statusCode());
            EXPECT_EQ(error->userInfo()["errorResponse"].objectAs<platform::URLResponse>(), row.response);
        }
        EXPECT_EQ(handler.validateResponse(row.response, Data{}, nullptr), row.valid) << "the error slot is optional";
    }
    handler.setAcceptableStatusCodes(std::nullopt);
    EXPECT_TRUE(handler.validateResponse(response("https://h/a", 500), Data{}, nullptr));
}

TEST(KRSDKResponseHandlerTest, JsonStringsParseToAnyJsonContainer) {
    EXPECT_TRUE(KRSDKResponseHandler::dictionaryWithJsonString(std::nullopt).isNil());
    EXPECT_TRUE(KRSDKResponseHandler::dictionaryWithJsonString("not json").isNil());
    EXPECT_TRUE(KRSDKResponseHandler::dictionaryWithJsonString("").isNil());
    EXPECT_EQ(KRSDKResponseHandler::dictionaryWithJsonString(R"({"a":1})"), Value(Dictionary{{"a", 1}}));
    EXPECT_EQ(KRSDKResponseHandler::dictionaryWithJsonString("[true]"), Value(platform::Array{true}));
}

TEST(KRSDKResponseHandlerTest, AbsentDataIsLoggedAndAppendsNothing) {
    auto handler = std::make_shared<KRSDKResponseHandler>();
    test::LogCapture capture;
    const Data chunk{'a', 'b'};
    handler->didReceiveData(nullptr, nullptr, std::span<const std::uint8_t>(chunk));
    handler->didReceiveData(nullptr, nullptr, std::nullopt);
    handler->didReceiveData(nullptr, nullptr, std::span<const std::uint8_t>(chunk));
    EXPECT_EQ(*handler->mutableData(), (Data{'a', 'b', 'a', 'b'}));
    ASSERT_EQ(capture.lines().size(), 1u);
    EXPECT_EQ(capture.count("[KRSDK-Common-ERROR-KRSDKResponseHandler-"), 1u);
    EXPECT_EQ(capture.count("]=>recceiveData is nil"), 1u);
}

// The received body is logged as its text, or as nil when it is not UTF-8.
TEST(KRSDKResponseHandlerTest, ReceivedBodyIsLoggedAsTextOrNil) {
    const std::pair<Data, const char*> rows[] = {
        {Data{'{', '"', 'a', '"', ':', '1', '}'}, "]=>http received :{\"a\":1}"},
        {Data{'o', 'k', ' ', 0xC3, 0xA9}, "]=>http received :ok \xC3\xA9"},
        {Data{'o', 'k', 0xFF}, "]=>http received :(null)"},
    };
    for (const auto& [body, line] : rows) {
        auto handler = std::make_shared<KRSDKResponseHandler>();
        test::LogCapture capture;
        std::shared_ptr<platform::Error> error;
        handler->responseObjectForURLResponse(response("http://h/x", 200), body, error);
        EXPECT_EQ(capture.count("[KRSDK-Common-DEBUG-KRSDKResponseHandler-"), 1u) << line;
        EXPECT_EQ(capture.count(line), 1u) << line;
    }
}

TEST(KRSDKResponseHandlerTest, TransportErrorReachesTheCompletionOnTheMainQueueWithoutObject) {
    auto handler = std::make_shared<KRSDKResponseHandler>();
    const Data chunk{'{', '}'};
    handler->didReceiveData(nullptr, nullptr, std::span<const std::uint8_t>(chunk));
    int calls = 0;
    bool onMain = false;
    std::shared_ptr<platform::Error> seen;
    handler->setCompletionHandler([&](const auto&, const Value& object, const auto& error) {
        ++calls;
        onMain = platform::MainQueue::isMainThread();
        EXPECT_TRUE(object.isNil());
        seen = error;
    });
    auto session = platform::URLSession::sessionWithConfiguration(nullptr);
    auto task = session->dataTaskWithRequest(platform::URLRequest(platform::URL::URLWithString("http://h/")));
    const auto transport = platform::Error::make(platform::URLErrorDomain, platform::URLErrorTimedOut);
    handler->didCompleteWithError(session, task, transport);
    EXPECT_FALSE(handler->mutableData().has_value()) << "the buffer is released at completion";
    EXPECT_EQ(calls, 0) << "the completion is always asynchronous";
    platform::MainQueue::drain();
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(onMain);
    EXPECT_EQ(seen, transport);
}

// Called directly, without a session or task: the answer is judged without a
// response (always valid) and reaches the completion with a nil response.
TEST(KRSDKResponseHandlerTest, CompletionWithoutATaskAnswersWithANilResponse) {
    for (const bool failed : {false, true}) {
        auto handler = std::make_shared<KRSDKResponseHandler>();
        const Data chunk{'{', '"', 'a', '"', ':', '1', '}'};
        handler->didReceiveData(nullptr, nullptr, std::span<const std::uint8_t>(chunk));
        int calls = 0;
        handler->setCompletionHandler([&](const auto& response, const Value& object, const auto& error) {
            ++calls;
            EXPECT_EQ(response, nullptr);
            EXPECT_EQ(object.isNil(), failed);
            EXPECT_EQ(error != nullptr, failed);
            if (!failed) {
                EXPECT_EQ(object, Value(Dictionary{{"a", 1}}));
            }
        });
        handler->didCompleteWithError(nullptr, nullptr,
                                      failed ? platform::Error::make(platform::URLErrorDomain, -1) : nullptr);
        platform::MainQueue::drain();
        EXPECT_EQ(calls, 1) << failed;
    }
}

TEST(KRSDKResponseHandlerTest, FinishedDownloadMovesToTheNamedPlaceAndAFailedMoveIsSilent) {
    test::TempFolder folder;
    auto session = platform::URLSession::sessionWithConfiguration(nullptr);
    auto task = session->downloadTaskWithRequest(platform::URLRequest(platform::URL::URLWithString("http://h/f")));
    ASSERT_TRUE(platform::FileManager::writeAtomically(folder / "tmp-download", std::string_view("payload")));
    const auto location = platform::URL::fileURLWithPath(folder / "tmp-download");

    auto handler = std::make_shared<KRSDKResponseHandler>();
    handler->setDownloadFileURL(platform::URL::fileURLWithPath("/stale"));
    handler->didFinishDownloadingToURL(session, task, location);
    EXPECT_EQ(handler->downloadFileURL(), nullptr) << "no block: no destination";
    EXPECT_TRUE(platform::FileManager::fileExistsAtPath(folder / "tmp-download"));

    std::shared_ptr<platform::URLSessionDownloadTask> seenTask;
    handler->setDownloadTaskDidFinishDownloading([&](const auto&, const auto& t, const auto& from) {
        seenTask = t;
        EXPECT_EQ(from, location);
        return platform::URL::fileURLWithPath(folder / "kept");
    });
    test::LogCapture capture;
    handler->didFinishDownloadingToURL(session, task, location);
    EXPECT_EQ(seenTask, task);
    EXPECT_EQ(handler->downloadFileURL()->path(), folder / "kept");
    EXPECT_EQ(platform::FileManager::contentsAtPath(folder / "kept"), (Data{'p', 'a', 'y', 'l', 'o', 'a', 'd'}));
    EXPECT_FALSE(platform::FileManager::fileExistsAtPath(folder / "tmp-download"));

    // Moving again fails (the source is gone): nothing is logged or thrown.
    handler->didFinishDownloadingToURL(session, task, location);
    EXPECT_TRUE(capture.lines().empty());
}

}  // namespace
}  // namespace krcommon

// Arbitrary answers through the response handler: any status code, response
// type and body gives an object, an error or both, never a crash, and the
// handler's promises hold: a status error carries the status, the two data
// errors carry 600, a successful status with a non-blank body always yields
// an object, and a JSON answer is exactly the parse of its bytes (or, when they
// do not parse, a format error carrying the parser's).

#include <krcommon/http/KRSDKResponseHandler.h>
#include <krcommon/platform/app/SystemLog.h>
#include <krcommon/platform/dispatch/MainQueue.h>
#include <krcommon/platform/io/JSONSerialization.h>

#include <cstdint>
#include <cstdlib>
#include <memory>

using namespace krcommon;

namespace {
struct Quiet final : platform::LogSink {
    void write(std::string_view) override {}
};
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool quiet = [] {
        platform::SystemLog::setSink(std::make_shared<Quiet>());
        return true;
    }();
    (void)quiet;
    if (size < 3) return 0;
    const std::int64_t status = 100 + (data[0] | (data[1] << 8)) % 500;
    static const std::optional<std::string> types[] = {std::nullopt, "json", "image", "string", "xml"};
    const auto& type = types[data[2] % 5];
    const platform::Data body(data + 3, data + size);

    KRSDKResponseHandler handler;
    handler.setRespType(type);
    auto response = std::make_shared<platform::HTTPURLResponse>(platform::URL::URLWithString("https://h/p"), status,
                                                                platform::HTTPURLResponse::HeaderFields{});
    std::shared_ptr<platform::Error> error;
    const platform::Value object = handler.responseObjectForURLResponse(response, body, error);

    const bool accepted = status >= 200 && status < 300;
    const bool blank = body.empty() || (body.size() == 1 && body[0] == ' ');
    if (error) {
        if (error->domain() == KRSDKResponseHttpCodeError) {
            if (accepted || error->code() != status) std::abort();
        } else if (error->code() != 600) {
            std::abort();
        }
    } else if (!accepted) {
        std::abort();  // a refused status always reports itself
    }
    if (accepted && !blank && object.isNil()) std::abort();
    if (accepted && !blank && (!type || *type == "json")) {
        std::shared_ptr<platform::Error> parserError;
        if (const auto parsed = platform::JSONSerialization::parse(body, &parserError)) {
            if (error || !(object == *parsed)) std::abort();
        } else if (!error || error->code() != 600 ||
                   (parserError && !error->userInfo().contains(NSUnderlyingErrorKey))) {
            std::abort();
        }
    }
    platform::MainQueue::drain();  // invalid-grant notifications
    return 0;
}

#include <krcommon/report/KRCommonReqBaseParam.h>

#include <krcommon/errors/KRSDKLogger.h>

#include <atomic>

namespace krcommon {

namespace {

// Identifiers of the process, never reset.
std::atomic<std::uint64_t> requestTaskCounter{0};

// The default operations log as this class's own source lines, whichever
// subclass they run for.
constexpr std::string_view kFile = "KRCommonReqBaseParam";
constexpr std::string_view kPrefix = "Common";
constexpr std::int32_t kTraceLevel = 1;

}  // namespace

KRCommonReqBaseParam::~KRCommonReqBaseParam() = default;

std::string KRCommonReqBaseParam::requestTaskId() const {
    const std::uint64_t id = requestTaskCounter.fetch_add(1, std::memory_order_relaxed) + 1;
    return std::to_string(id);
}

std::optional<platform::Dictionary> KRCommonReqBaseParam::paramDictionaryInfo() {
    KRSDKLogger::log(kFile, __func__, 44, kPrefix, kTraceLevel, "get Info should be override ..");
    return std::nullopt;
}

KRCommonReqBaseParam::Text KRCommonReqBaseParam::requestUrl() {
    KRSDKLogger::log(kFile, __func__, 49, kPrefix, kTraceLevel, "get url should be override ..");
    return std::nullopt;
}

void KRCommonReqBaseParam::handleRespondData(const platform::Value&) {
    KRSDKLogger::log(kFile, __func__, 56, kPrefix, kTraceLevel, "handle data should be override ..");
}

}  // namespace krcommon

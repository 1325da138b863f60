#include <krcommon/report/KrCommonAdapter.h>

#include <krcommon/config/KRAppInfos.h>
#include <krcommon/platform/app/Bundle.h>
#include <krcommon/platform/app/Device.h>
#include <krcommon/platform/app/SystemLog.h>
#include <krcommon/platform/core/Format.h>
#include <krcommon/platform/io/FileManager.h>
#include <krcommon/platform/io/JSONSerialization.h>
#include <krcommon/platform/io/PropertyList.h>
#include <krcommon/platform/io/SearchPaths.h>
#include <krcommon/report/KRReportParam.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>
#include <limits>
#include <span>

namespace krcommon {

using platform::Array;
using platform::Dictionary;
using platform::FileManager;
using platform::SystemLog;
using platform::Value;

namespace {

// A number's integer value, or a string's leading decimal integer after any
// white space (0 when there is none, clamped when it overflows), as the
// platform reads "integerValue" from either. Anything else has none.
std::optional<std::int64_t> integerValueOf(const Value& value) {
    if (value.isNumber()) return value.integerValue();
    const std::string* text = value.string();
    if (!text) return std::nullopt;
    std::string_view s(*text);
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t' || s.front() == '\n' || s.front() == '\r'))
        s.remove_prefix(1);
    bool negative = false;
    if (!s.empty() && (s.front() == '+' || s.front() == '-')) {
        negative = s.front() == '-';
        s.remove_prefix(1);
    }
    std::uint64_t magnitude = 0;
    const std::uint64_t limit = negative ? std::uint64_t(std::numeric_limits<std::int64_t>::max()) + 1
                                         : std::uint64_t(std::numeric_limits<std::int64_t>::max());
    for (char c : s) {
        if (c < '0' || c > '9') break;
        magnitude = magnitude * 10 + std::uint64_t(c - '0');
        if (magnitude > limit) {
            magnitude = limit;
            break;
        }
    }
    if (negative) return magnitude == limit ? std::numeric_limits<std::int64_t>::min() : -std::int64_t(magnitude);
    return std::int64_t(magnitude);
}

// The queue as an array of records; anything that is not one reads as nothing.
std::optional<Array> readRecordArray(const std::string& path) {
    std::optional<Value> list = platform::PropertyList::readFile(path);
    if (!list) return std::nullopt;
    if (Array* records = list->array()) return std::move(*records);
    return std::nullopt;
}

long long millisecondsSince1970() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

}  // namespace

// ---- Creation.

const std::shared_ptr<KrCommonAdapter>& KrCommonAdapter::instance() {
    // Made once and never destroyed, so that nothing at process exit waits on
    // the adapter's URL session.
    static const auto* const shared = new std::shared_ptr<KrCommonAdapter>(create());
    return *shared;
}

std::shared_ptr<KrCommonAdapter> KrCommonAdapter::create() { return std::make_shared<KrCommonAdapter>(Private{}); }

namespace {

// The manager an adapter starts with, and goes back to when it is given none.
std::shared_ptr<KRSDKMemberHttpManager> builtInManager() {
    auto manager = KRSDKMemberHttpManager::create();
    manager->operationQueue()->setMaxConcurrentOperationCount(
        platform::OperationQueue::DefaultMaxConcurrentOperationCount);
    return manager;
}

}  // namespace

KrCommonAdapter::KrCommonAdapter(Private) : httpManager_(builtInManager()) {}

KrCommonAdapter::~KrCommonAdapter() = default;

// ---- Base information.

void KrCommonAdapter::setLoginBaseInfo(const Value& info) {
    std::lock_guard lock(mutex_);
    if (isSetLoginInfo_) return;
    const Dictionary* d = info.dictionary();
    if (!d) return;
    if (const Value* v = d->find("businessType")) {
        if (auto n = integerValueOf(*v)) businessType_ = *n;
    }
    if (const Value* v = d->find("protocolVersion")) protocolVersion_ = *v;
    if (const Value* v = d->find("clientVersion")) clientVersion_ = *v;
    if (const Value* v = d->find("sdkVersion")) sdkVersion_ = *v;
    if (const Value* v = d->find("deviceId")) deviceId_ = *v;
}

void KrCommonAdapter::isSetBaseLoginInfo(bool locked) {
    std::lock_guard lock(mutex_);
    isSetLoginInfo_ = locked;
}

bool KrCommonAdapter::isSetLoginInfo() const { return locked(isSetLoginInfo_); }
std::int64_t KrCommonAdapter::businessType() const { return locked(businessType_); }
Value KrCommonAdapter::protocolVersion() const { return locked(protocolVersion_); }
Value KrCommonAdapter::clientVersion() const { return locked(clientVersion_); }
Value KrCommonAdapter::sdkVersion() const { return locked(sdkVersion_); }
Value KrCommonAdapter::deviceId() const { return locked(deviceId_); }

// ---- Statistics.

void KrCommonAdapter::reportRequestStatInfo(const Value& record) {
    if (record.isNil()) {
        SystemLog::log("repInfoList is nil....");
        return;
    }
    std::optional<Value> body;
    {
        std::lock_guard lock(mutex_);
        if (reporting_.load(std::memory_order_relaxed)) {
            SystemLog::log("is reporting....");
            if (statisArray_) statisArray_->push_back(record);
            return;
        }
        body = persistLocked(Array{record});
    }
    if (body) upload(*body);
}

void KrCommonAdapter::sendReportRequest(std::optional<Array> repInfoList) {
    if (!repInfoList) {
        SystemLog::log("repInfoList is nil....");
        return;
    }
    std::optional<Value> body;
    {
        std::lock_guard lock(mutex_);
        body = persistLocked(std::move(*repInfoList));
    }
    if (body) upload(*body);
}

std::optional<Value> KrCommonAdapter::persistLocked(Array records) {
    const std::optional<std::string> legacyPath = moveDocumentToLibrary()
                                                      ? std::optional<std::string>(LibraryFilePath(statisticsFileName))
                                                      : documentFilePath(statisticsFileName);
    std::optional<Array> legacy;
    const bool legacyFound = legacyPath && FileManager::fileExistsAtPath(*legacyPath);
    if (legacyFound) legacy = readRecordArray(*legacyPath);

    const std::string queuePath = statisInfoFilePathName();
    std::string lastWritten;
    Value queueValue(readQueueLocked(queuePath, &lastWritten));
    Array& queue = *queueValue.array();
    const std::size_t stored = queue.size();
    queue.reserve(queue.size() + records.size() + (legacy ? legacy->size() : 0));
    std::move(records.begin(), records.end(), std::back_inserter(queue));
    if (legacy) std::move(legacy->begin(), legacy->end(), std::back_inserter(queue));

    SystemLog::log("statistics count [ %lu ] ********", static_cast<unsigned long>(queue.size()));
    // New records go after the ones in the file, so the text this adapter last
    // wrote only needs them added, not every queued record written again.
    std::optional<std::string> text;
    if (!lastWritten.empty())
        text = platform::PropertyList::appendToXMLArray(std::move(lastWritten), std::span(queue).subspan(stored));
    if (!text) text = platform::PropertyList::writeXML(queueValue);
    const bool written = text && FileManager::writeAtomically(queuePath, *text);
    if (written) {
        queueCache_ = QueueCache{std::move(*text), queue};
    } else {
        queueCache_.reset();
        SystemLog::log("writeToFile is fail ");
    }
    // The legacy file goes only once its records are on disk in the queue
    // file: a crash or a full disk before that keeps it for the next merge.
    if (legacyFound && written) (void)FileManager::removeItemAtPath(*legacyPath);

    if (queue.size() > static_cast<std::uint64_t>(reportStatisMax)) {
        (void)removeFileWithPath(queuePath);
        return std::nullopt;
    }
    if (queue.size() < static_cast<std::uint64_t>(reportCount)) return std::nullopt;

    Value body = batchBodyLocked(std::move(queue));
    SystemLog::log("postDicInfo===%@", body);
    reporting_.store(true, std::memory_order_release);
    return body;
}

Array KrCommonAdapter::readQueueLocked(const std::string& path, std::string* lastWritten) {
    std::shared_ptr<platform::Error> error;
    std::optional<platform::Data> bytes = FileManager::contentsAtPath(path, &error);
    if (!bytes) {
        // A folder in the file's place holds no queue; it stays, and the write fails.
        if (error && error->code() != ENOENT && error->code() != EISDIR) setAsideUnreadableQueue(path);
        return {};
    }
    // The file as this adapter last wrote it need not be parsed again.
    if (queueCache_ && bytes->size() == queueCache_->bytes.size() &&
        std::memcmp(bytes->data(), queueCache_->bytes.data(), bytes->size()) == 0) {
        Array records = std::move(queueCache_->records);
        *lastWritten = std::move(queueCache_->bytes);
        queueCache_.reset();
        return records;
    }
    std::optional<Value> list = platform::PropertyList::parse(*bytes);
    if (list && list->array()) return std::move(*list->array());
    setAsideUnreadableQueue(path);
    return {};
}

void KrCommonAdapter::setAsideUnreadableQueue(const std::string& path) {
    // What the file held is kept for a person to look at; the queue starts afresh.
    const std::string aside = path + unreadableSuffix;
    std::shared_ptr<platform::Error> error;
    (void)FileManager::removeItemAtPath(aside);
    if (FileManager::moveItemAtPath(path, aside, &error))
        SystemLog::log("statistics queue file cannot be read, moved aside to %@", aside);
    else
        SystemLog::log("statistics queue file cannot be read and cannot be moved aside to %@, error=%@", aside, error);
}

Value KrCommonAdapter::batchBodyLocked(Array queue) const {
    const Value bundleIdentifier = platform::Bundle::mainBundle()->objectForInfoDictionaryKey("CFBundleIdentifier");
    Dictionary body;
    body.reserve(11);
    body.set("protocolVersion", protocolVersion_);
    body.set("clientVersion", clientVersion_);
    body.set("businessType", platform::format("%ld", static_cast<long>(businessType_)));
    body.set("platformVersion", Value(KRAppInfos::share().platformVersion()));
    body.set("sdkVersion", sdkVersion_);
    body.set("appName", platform::format("IOS-%@", bundleIdentifier));
    body.set("deviceId", deviceId_);
    body.set("osVersion", Value(KRAppInfos::share().osVersion()));
    body.set("deviceModel", Value(KRAppInfos::share().deviceModel()));
    body.set("deviceName", platform::Device::currentDevice().name());
    body.set("statList", std::move(queue));
    return Value(std::move(body));
}

void KrCommonAdapter::requestReportStatisticsInfo(const Dictionary& body) { upload(Value(body)); }

void KrCommonAdapter::upload(const Value& body) {
    auto param = KRReportParam::initWithParamDictionary(*body.dictionary(), KRReportParam::reportStasticsInfo);
    const std::optional<std::string> url = param->requestUrl();

    // Both completions keep the adapter alive until they have run.
    auto self = shared_from_this();
    auto success = [self](const std::shared_ptr<platform::URLSessionDataTask>&, const Value&) {
        std::optional<Array> pending;
        {
            std::lock_guard lock(self->mutex_);
            if (!removeFileWithPath(statisInfoFilePathName())) SystemLog::log("删除本地统计记录失败");
            if (self->statisArray_ && !self->statisArray_->empty()) {
                pending = std::move(*self->statisArray_);
                self->statisArray_->clear();
            }
        }
        if (pending) self->sendReportRequest(std::move(pending));
        self->reporting_.store(false, std::memory_order_release);
    };
    auto failure = [self](const std::shared_ptr<platform::URLSessionDataTask>&, const Value&,
                          const std::shared_ptr<platform::Error>&) {
        self->reporting_.store(false, std::memory_order_release);
        SystemLog::log("report statistics fail next time retry...");
    };
    (void)httpManager()->POST(url, Value(), body, std::nullopt, false, std::move(success), std::move(failure));
}

// ---- User actions.

void KrCommonAdapter::reportActionCategory(std::optional<std::string_view> category,
                                           std::optional<std::string_view> action, const Value& extData) {
    Dictionary extra{{"APPID", platform::format("%ld", static_cast<long>(businessType()))}};
    if (const Dictionary* overlay = extData.dictionary()) {
        for (const auto& [key, value] : *overlay) extra.set(key, value);
    }
    std::string extdata = convertToJsonData(Value(std::move(extra)));

    Dictionary parameters;
    parameters.reserve(5);
    parameters.set("category", std::string(category.value_or("")));
    parameters.set("action", std::string(action.value_or("")));
    parameters.set("flowid", platform::format("%ld", static_cast<long>(millisecondsSince1970())));
    parameters.set("reqid", platform::format("%ld", static_cast<long>(millisecondsSince1970())));
    parameters.set("extdata", std::move(extdata));

    auto param = KRReportParam::initWithParamDictionary(parameters, KRReportParam::reportUIActionInfo);
    auto sent = std::make_shared<const Value>(std::move(parameters));
    (void)httpManager()->GET(
        param->requestUrl(), Value(), *sent, std::string("json"),
        [sent](const std::shared_ptr<platform::URLSessionDataTask>&, const Value&) {
            SystemLog::log("[info][reportActionInfo]=success [dec]=%@", *sent);
        },
        [](const std::shared_ptr<platform::URLSessionDataTask>&, const Value&,
           const std::shared_ptr<platform::Error>& error) {
            SystemLog::log("[error][reportActionInfo]=fail [dec]=%@", error);
        });
}

std::string KrCommonAdapter::convertToJsonData(const Value& dictionary) {
    std::shared_ptr<platform::Error> error;
    std::optional<std::string> json = platform::JSONSerialization::write(dictionary, true, &error);
    if (!json) {
        SystemLog::log("[error][jsonStringWithDict]%@", error);
        return {};
    }
    std::string& text = *json;
    text.erase(std::remove_if(text.begin(), text.end(), [](char c) { return c == ' ' || c == '\n'; }), text.end());
    return std::move(text);
}

// ---- Legacy queue.

void KrCommonAdapter::moveCacheFromDocumentToLibrayrIfNeeded() {
    setMoveDocumentToLibrary(true);
    const std::optional<std::string> from = documentFilePath(statisticsFileName);
    if (!from || !FileManager::fileExistsAtPath(*from)) return;
    std::shared_ptr<platform::Error> error;
    // Library always exists in an app's container; here it is made on demand.
    (void)FileManager::createDirectoryAtPath(platform::SearchPaths::libraryDirectory(), true);
    if (!FileManager::moveItemAtPath(*from, LibraryFilePath(statisticsFileName), &error))
        SystemLog::log("move sdk request report data from document to library failed, error=%@", error);
}

// ---- Paths and files.

std::optional<std::string> KrCommonAdapter::documentFilePath(std::optional<std::string_view> name) {
    if (!name) return std::nullopt;
    std::string path = platform::SearchPaths::documentsDirectory();
    path += '/';
    path += *name;
    return path;
}

std::string KrCommonAdapter::LibraryFilePath(std::string_view name) {
    std::string path = platform::SearchPaths::libraryDirectory();
    path += '/';
    path += name;
    return path;
}

std::string KrCommonAdapter::statisInfoFilePathName() {
    const std::string folder = LibraryFilePath(storageFolderName);
    if (!FileManager::fileExistsAtPath(folder)) (void)FileManager::createDirectoryAtPath(folder, true);
    return platform::format("%@/%@", folder, statisticsFileName);
}

bool KrCommonAdapter::removeFileWithPath(const std::string& path) {
    if (!FileManager::fileExistsAtPath(path)) return true;
    return FileManager::removeItemAtPath(path);
}

// ---- Transport.

std::shared_ptr<KRSDKMemberHttpManager> KrCommonAdapter::httpManager() const {
    std::lock_guard lock(mutex_);
    return httpManager_;
}

void KrCommonAdapter::setHttpManager(std::shared_ptr<KRSDKMemberHttpManager> manager) {
    if (!manager) manager = builtInManager();
    std::lock_guard lock(mutex_);
    httpManager_ = std::move(manager);
}

}  // namespace krcommon

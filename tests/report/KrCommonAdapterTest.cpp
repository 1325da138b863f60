// The statistics adapter against a real HTTPS server on 127.0.0.1 and real
// files in a temporary app home.

#include <krcommon/config/KIHostService.h>
#include <krcommon/config/KRAppInfos.h>
#include <krcommon/http/KRSDKMemberHttpManager.h>
#include <krcommon/platform/app/Bundle.h>
#include <krcommon/platform/app/Device.h>
#include <krcommon/platform/dispatch/MainQueue.h>
#include <krcommon/platform/io/FileManager.h>
#include <krcommon/platform/io/JSONSerialization.h>
#include <krcommon/platform/io/PropertyList.h>
#include <krcommon/report/KrCommonAdapter.h>

#include "support/LogCapture.h"
#include "support/TempAppHome.h"
#include "support/TestServer.h"

#include <gtest/gtest.h>

#include <chrono>
#include <deque>
#include <future>
#include <set>
#include <thread>

namespace krcommon {
namespace {

using platform::Array;
using platform::Dictionary;
using platform::FileManager;
using platform::MainQueue;
using platform::PropertyList;
using platform::Value;
using test::LogCapture;
using test::TestCertificates;
using test::TestServer;

Value record(int seq) { return Value(Dictionary{{"seq", seq}, {"event", "login"}, {"cost", 0.25 * seq}}); }

Array records(int from, int count) {
    Array list;
    for (int i = from; i < from + count; ++i) list.push_back(record(i));
    return list;
}

std::vector<std::int64_t> seqs(const Array& list) {
    std::vector<std::int64_t> out;
    for (const Value& r : list) out.push_back(r["seq"].integerValue().value_or(-1));
    return out;
}

std::vector<std::int64_t> range(int from, int count) {
    std::vector<std::int64_t> out;
    for (int i = from; i < from + count; ++i) out.push_back(i);
    return out;
}

class AdapterTest : public ::testing::Test {
protected:
    void SetUp() override {
        server_ = TestServer::https(TestCertificates::shared().server);
        server_->route("POST", "/loginstat", [this](const httplib::Request&, httplib::Response& response) {
            std::shared_future<void> gate;
            int status = 200;
            {
                std::lock_guard lock(mutex_);
                queueSeenByServer_.push_back(queueFile());
                gate = gate_;
                if (!statuses_.empty()) {
                    status = statuses_.front();
                    statuses_.pop_front();
                }
            }
            if (gate.valid()) gate.wait_for(std::chrono::seconds(20));
            response.status = status;
            response.set_content(R"({"code":0})", "application/json");
        });
        server_->route("GET", "/kruserstat", [](const httplib::Request&, httplib::Response& response) {
            response.set_content(R"({"code":0})", "application/json");
        });
        server_->start();
        KIHostService::service().updateHostServers(
            Value(Dictionary{{"accountHost", "127.0.0.1:" + std::to_string(server_->port())}}));
        adapter_ = KrCommonAdapter::create();
        adapter_->httpManager()->sessionConfiguration()->addTrustAnchorPEM(TestCertificates::shared().authorityPEM());
    }

    void TearDown() override {
        release();
        waitIdle();
    }

    /// The queue file's records, or nullopt when there is no readable array.
    static std::optional<Array> queueFile() {
        auto list = PropertyList::readFile(KrCommonAdapter::statisInfoFilePathName());
        if (!list || !list->array()) return std::nullopt;
        return *list->array();
    }
    static bool queueFileExists() { return FileManager::fileExistsAtPath(KrCommonAdapter::statisInfoFilePathName()); }

    /// Pumps the main queue until no batch is in flight.
    bool waitIdle() {
        const bool idle = MainQueue::runUntil([&] { return !adapter_->reporting(); }, 20);
        MainQueue::runUntil([] { return false; }, 0.02);
        return idle;
    }

    /// The batches the server received, decoded.
    std::vector<Dictionary> batches() const {
        std::vector<Dictionary> out;
        for (const auto& request : server_->requests()) {
            if (request.path != "/loginstat") continue;
            auto body = platform::JSONSerialization::parse(request.body);
            out.push_back(body && body->dictionary() ? *body->dictionary() : Dictionary{});
        }
        return out;
    }

    void answerNext(std::initializer_list<int> statuses) {
        std::lock_guard lock(mutex_);
        statuses_.insert(statuses_.end(), statuses);
    }
    void hold() {
        std::lock_guard lock(mutex_);
        promise_ = std::promise<void>();
        gate_ = promise_.get_future().share();
    }
    void release() {
        std::lock_guard lock(mutex_);
        if (gate_.valid()) {
            promise_.set_value();
            gate_ = {};
        }
    }

    test::TempAppHome home_;
    LogCapture capture_;
    std::unique_ptr<TestServer> server_;
    std::shared_ptr<KrCommonAdapter> adapter_;
    std::mutex mutex_;
    std::deque<int> statuses_;
    std::vector<std::optional<Array>> queueSeenByServer_;
    std::promise<void> promise_;
    std::shared_future<void> gate_;
};

TEST_F(AdapterTest, FourRecordsWaitAndTheFifthSendsOneBatchWithEveryKey) {
    for (int i = 0; i < 4; ++i) {
        adapter_->reportRequestStatInfo(record(i));
        EXPECT_FALSE(adapter_->reporting());
        auto file = queueFile();
        ASSERT_TRUE(file.has_value());
        EXPECT_EQ(seqs(*file), range(0, i + 1));
        EXPECT_TRUE(capture_.contains("statistics count [ " + std::to_string(i + 1) + " ] ********"));
    }
    EXPECT_EQ(server_->requestCount(), 0u);

    adapter_->reportRequestStatInfo(record(4));
    EXPECT_TRUE(adapter_->reporting());
    ASSERT_TRUE(waitIdle());
    EXPECT_FALSE(queueFileExists());

    auto sent = batches();
    ASSERT_EQ(sent.size(), 1u);
    const Dictionary& body = sent[0];
    EXPECT_EQ(body.keys(), (std::vector<std::string>{"protocolVersion", "clientVersion", "businessType",
                                                     "platformVersion", "sdkVersion", "appName", "deviceId",
                                                     "osVersion", "deviceModel", "deviceName", "statList"}));
    EXPECT_EQ(body["protocolVersion"], Value("200"));
    EXPECT_EQ(body["clientVersion"], Value("unknow"));
    EXPECT_EQ(body["businessType"], Value("-1"));
    EXPECT_EQ(body["sdkVersion"], Value("unknow"));
    EXPECT_EQ(body["deviceId"], Value("unknow"));
    EXPECT_EQ(body["platformVersion"], Value("11"));
    EXPECT_EQ(body["appName"],
              Value(platform::format(
                  "IOS-%@", platform::Bundle::mainBundle()->objectForInfoDictionaryKey("CFBundleIdentifier"))));
    EXPECT_EQ(body["osVersion"], Value(KRAppInfos::share().osVersion()));
    EXPECT_EQ(body["deviceModel"], Value(KRAppInfos::share().deviceModel()));
    EXPECT_EQ(body["deviceName"], Value(platform::Device::currentDevice().name()));
    ASSERT_TRUE(body["statList"].isArray());
    EXPECT_EQ(*body["statList"].array(), records(0, 5));

    // The file held the whole batch while the upload ran.
    ASSERT_EQ(queueSeenByServer_.size(), 1u);
    ASSERT_TRUE(queueSeenByServer_[0].has_value());
    EXPECT_EQ(seqs(*queueSeenByServer_[0]), range(0, 5));
    EXPECT_EQ(capture_.count("postDicInfo==="), 1u);
}

TEST_F(AdapterTest, FailedUploadKeepsTheQueueAndTheNextRecordRetriesAll) {
    answerNext({500});
    for (int i = 0; i < 5; ++i) adapter_->reportRequestStatInfo(record(i));
    ASSERT_TRUE(waitIdle());
    EXPECT_TRUE(capture_.contains("report statistics fail next time retry..."));
    ASSERT_TRUE(queueFile().has_value());
    EXPECT_EQ(seqs(*queueFile()), range(0, 5));

    adapter_->reportRequestStatInfo(record(5));
    ASSERT_TRUE(waitIdle());
    auto sent = batches();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(seqs(*sent[1]["statList"].array()), range(0, 6));
    EXPECT_FALSE(queueFileExists());
}

TEST_F(AdapterTest, AnUnreachableServerIsAFailureToo) {
    KIHostService::service().updateHostServers(
        Value(Dictionary{{"accountHost", "127.0.0.1:" + std::to_string(test::closedPort())}}));
    adapter_->sendReportRequest(records(0, 5));
    ASSERT_TRUE(waitIdle());
    EXPECT_TRUE(capture_.contains("report statistics fail next time retry..."));
    EXPECT_EQ(seqs(*queueFile()), range(0, 5));
}

struct CapRow {
    int stored;
    bool sent;
};

class AdapterCapTest : public AdapterTest, public ::testing::WithParamInterface<CapRow> {};

TEST_P(AdapterCapTest, AQueueAboveFiftyIsDiscardedAndFiftyIsSent) {
    ASSERT_TRUE(PropertyList::writeFile(KrCommonAdapter::statisInfoFilePathName(), Value(records(0, GetParam().stored)),
                                        true));
    adapter_->reportRequestStatInfo(record(GetParam().stored));
    ASSERT_TRUE(waitIdle());
    EXPECT_FALSE(queueFileExists());
    if (GetParam().sent) {
        auto sent = batches();
        ASSERT_EQ(sent.size(), 1u);
        EXPECT_EQ(seqs(*sent[0]["statList"].array()), range(0, GetParam().stored + 1));
    } else {
        EXPECT_EQ(server_->requestCount(), 0u);
        adapter_->reportRequestStatInfo(record(100));
        EXPECT_EQ(seqs(*queueFile()), std::vector<std::int64_t>{100});
    }
}

INSTANTIATE_TEST_SUITE_P(Sizes, AdapterCapTest, ::testing::Values(CapRow{49, true}, CapRow{50, false}));

TEST_F(AdapterTest, ARecordArrivingDuringAnUploadIsDropped) {
    hold();
    for (int i = 0; i < 5; ++i) adapter_->reportRequestStatInfo(record(i));
    ASSERT_TRUE(MainQueue::runUntil([&] { return server_->requestCount() == 1; }, 20));
    adapter_->reportRequestStatInfo(record(99));
    EXPECT_TRUE(capture_.contains("is reporting...."));
    EXPECT_EQ(seqs(*queueFile()), range(0, 5));
    release();
    ASSERT_TRUE(waitIdle());
    EXPECT_FALSE(queueFileExists());
    adapter_->reportRequestStatInfo(record(7));
    EXPECT_EQ(seqs(*queueFile()), std::vector<std::int64_t>{7});
}

struct LegacyRow {
    const char* name;
    bool inLibrary;
};

class AdapterLegacyTest : public AdapterTest, public ::testing::WithParamInterface<LegacyRow> {};

TEST_P(AdapterLegacyTest, TheLegacyQueueIsMergedAfterTheNewRecordsAndDeleted) {
    adapter_->setMoveDocumentToLibrary(GetParam().inLibrary);
    const std::string legacy = GetParam().inLibrary ? KrCommonAdapter::LibraryFilePath("statisticsInfoList")
                                                    : *KrCommonAdapter::documentFilePath("statisticsInfoList");
    ASSERT_TRUE(FileManager::createDirectoryAtPath(legacy.substr(0, legacy.rfind('/')), true));
    ASSERT_TRUE(PropertyList::writeFile(legacy, Value(records(20, 2)), true));
    ASSERT_TRUE(PropertyList::writeFile(KrCommonAdapter::statisInfoFilePathName(), Value(records(0, 1)), true));
    adapter_->reportRequestStatInfo(record(10));
    EXPECT_FALSE(FileManager::fileExistsAtPath(legacy));
    EXPECT_EQ(seqs(*queueFile()), (std::vector<std::int64_t>{0, 10, 20, 21}));
    EXPECT_EQ(server_->requestCount(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Folders, AdapterLegacyTest,
                         ::testing::Values(LegacyRow{"Documents", false}, LegacyRow{"Library", true}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(AdapterTest, TheLegacyFileMovesToLibraryAndIsFoundThere) {
    const std::string documents = *KrCommonAdapter::documentFilePath("statisticsInfoList");
    ASSERT_TRUE(FileManager::createDirectoryAtPath(home_.documents(), true));
    ASSERT_TRUE(PropertyList::writeFile(documents, Value(records(30, 3)), true));
    adapter_->moveCacheFromDocumentToLibrayrIfNeeded();
    EXPECT_TRUE(adapter_->moveDocumentToLibrary());
    EXPECT_FALSE(FileManager::fileExistsAtPath(documents));
    EXPECT_TRUE(FileManager::fileExistsAtPath(KrCommonAdapter::LibraryFilePath("statisticsInfoList")));

    adapter_->reportRequestStatInfo(record(1));
    EXPECT_EQ(seqs(*queueFile()), (std::vector<std::int64_t>{1, 30, 31, 32}));
    EXPECT_FALSE(FileManager::fileExistsAtPath(KrCommonAdapter::LibraryFilePath("statisticsInfoList")));
}

TEST_F(AdapterTest, AFailedMoveIsLoggedAndTheFlagStaysOn) {
    ASSERT_TRUE(FileManager::createDirectoryAtPath(home_.documents(), true));
    ASSERT_TRUE(PropertyList::writeFile(*KrCommonAdapter::documentFilePath("statisticsInfoList"), Value(records(0, 1)),
                                        true));
    // Something already stands where the file would go.
    ASSERT_TRUE(FileManager::createDirectoryAtPath(KrCommonAdapter::LibraryFilePath("statisticsInfoList"), true));
    adapter_->moveCacheFromDocumentToLibrayrIfNeeded();
    EXPECT_TRUE(adapter_->moveDocumentToLibrary());
    EXPECT_EQ(capture_.count("move sdk request report data from document to library failed, error=Error "
                             "Domain=NSPOSIXErrorDomain Code=17"),
              1u);
}

TEST_F(AdapterTest, BaseInformationIsTakenKeyByKeyUntilLocked) {
    adapter_->setLoginBaseInfo(Value(Dictionary{{"sdkVersion", "3.1"}}));
    EXPECT_EQ(adapter_->sdkVersion(), Value("3.1"));
    EXPECT_EQ(adapter_->clientVersion(), Value("unknow"));
    EXPECT_EQ(adapter_->businessType(), -1);

    adapter_->setLoginBaseInfo(Value(Dictionary{{"businessType", "12abc"}, {"deviceId", "dev-1"},
                                                {"clientVersion", 7}, {"protocolVersion", "201"}}));
    EXPECT_EQ(adapter_->businessType(), 12);
    EXPECT_EQ(adapter_->deviceId(), Value("dev-1"));
    EXPECT_EQ(adapter_->clientVersion(), Value(7));  // taken as it is
    adapter_->setLoginBaseInfo(Value());
    adapter_->setLoginBaseInfo(Value("not a dictionary"));
    EXPECT_EQ(adapter_->deviceId(), Value("dev-1"));

    adapter_->isSetBaseLoginInfo(true);
    adapter_->setLoginBaseInfo(Value(Dictionary{{"deviceId", "dev-2"}, {"businessType", 3}}));
    EXPECT_EQ(adapter_->deviceId(), Value("dev-1"));
    EXPECT_EQ(adapter_->businessType(), 12);

    adapter_->sendReportRequest(records(0, 5));
    ASSERT_TRUE(waitIdle());
    auto sent = batches();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0]["businessType"], Value("12"));
    EXPECT_EQ(sent[0]["deviceId"], Value("dev-1"));
    EXPECT_EQ(sent[0]["clientVersion"], Value(7));
    EXPECT_EQ(sent[0]["protocolVersion"], Value("201"));
    EXPECT_EQ(sent[0]["sdkVersion"], Value("3.1"));
}

TEST_F(AdapterTest, NilInputIsRefusedWithALine) {
    adapter_->reportRequestStatInfo(Value());
    adapter_->sendReportRequest(std::nullopt);
    EXPECT_EQ(capture_.count("repInfoList is nil...."), 2u);
    EXPECT_FALSE(queueFileExists());
}

// ---- User actions.

long long nowMs() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

struct ActionRow {
    const char* name;
    std::optional<std::string> category;
    std::optional<std::string> action;
    Value extData;
    std::string expectedExtdata;
};

class AdapterActionTest : public AdapterTest, public ::testing::WithParamInterface<ActionRow> {};

TEST_P(AdapterActionTest, SendsOneGetWithTheQuery) {
    const auto& row = GetParam();
    adapter_->setLoginBaseInfo(Value(Dictionary{{"businessType", 42}}));
    const long long before = nowMs();
    adapter_->reportActionCategory(row.category, row.action, row.extData);
    ASSERT_TRUE(MainQueue::runUntil([&] { return capture_.count("[reportActionInfo]") > 0; }, 20));
    const long long after = nowMs();

    const auto requests = server_->requests();
    ASSERT_EQ(requests.size(), 1u);
    const auto& query = requests[0];
    EXPECT_EQ(query.method, "GET");
    EXPECT_EQ(query.path, "/kruserstat");
    EXPECT_EQ(query.queryValue("category"), row.category.value_or(""));
    EXPECT_EQ(query.queryValue("action"), row.action.value_or(""));
    // The query holds quotes, which a URL may not, so the manager encodes the
    // whole query once more: the server's first decoding leaves one level.
    EXPECT_EQ(httplib::detail::decode_url(query.queryValue("extdata"), false), row.expectedExtdata);
    const long long flowid = std::stoll(query.queryValue("flowid"));
    const long long reqid = std::stoll(query.queryValue("reqid"));
    EXPECT_GE(flowid, before);
    EXPECT_LE(flowid, reqid);
    EXPECT_LE(reqid, after);
    EXPECT_EQ(capture_.count("[info][reportActionInfo]=success [dec]="), 1u);
    EXPECT_FALSE(adapter_->reporting());
    EXPECT_FALSE(queueFileExists());
}

INSTANTIATE_TEST_SUITE_P(
    Rows, AdapterActionTest,
    ::testing::Values(ActionRow{"Plain", "login", "tap", Value(), R"({"APPID":"42"})"},
                      ActionRow{"Absent", std::nullopt, std::nullopt, Value(), R"({"APPID":"42"})"},
                      ActionRow{"Overlaid", "pay", "open",
                                Value(Dictionary{{"APPID", "9"}, {"note", "two words"}, {"n", 1}}),
                                R"({"APPID":"9","note":"twowords","n":1})"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(AdapterTest, ReportsGoThroughTheManagerSetAndNoManagerMeansAFreshOne) {
    auto mine = KRSDKMemberHttpManager::create();
    mine->sessionConfiguration()->addTrustAnchorPEM(TestCertificates::shared().authorityPEM());
    mine->setValue("mine", "X-Manager");
    adapter_->setHttpManager(mine);
    EXPECT_EQ(adapter_->httpManager(), mine);
    adapter_->reportActionCategory("c", "a", Value());
    ASSERT_TRUE(MainQueue::runUntil([&] { return capture_.count("[reportActionInfo]") > 0; }, 20));
    ASSERT_EQ(server_->requests().size(), 1u);
    EXPECT_EQ(server_->requests()[0].header("X-Manager"), "mine");

    // A fresh manager trusts only the system's authorities, so the test server is refused.
    adapter_->setHttpManager(nullptr);
    ASSERT_NE(adapter_->httpManager(), nullptr);
    EXPECT_NE(adapter_->httpManager(), mine);
    adapter_->reportActionCategory("c", "a", Value());
    ASSERT_TRUE(MainQueue::runUntil([&] { return capture_.count("[error][reportActionInfo]=fail") > 0; }, 20));
    EXPECT_EQ(server_->requests().size(), 1u);
}

TEST_F(AdapterTest, AFailedActionReportIsLoggedWithTheError) {
    KIHostService::service().updateHostServers(
        Value(Dictionary{{"accountHost", "127.0.0.1:" + std::to_string(test::closedPort())}}));
    adapter_->reportActionCategory("c", "a", Value());
    ASSERT_TRUE(MainQueue::runUntil([&] { return capture_.count("[reportActionInfo]") > 0; }, 20));
    EXPECT_EQ(capture_.count("[error][reportActionInfo]=fail [dec]=Error Domain=NSURLErrorDomain Code=-1004"), 1u);
}

struct JsonRow {
    const char* name;
    Value input;
    std::string expected;
};

class ConvertToJsonTest : public ::testing::TestWithParam<JsonRow> {};

TEST_P(ConvertToJsonTest, RemovesEveryBlankAndLineFeed) {
    LogCapture capture;
    EXPECT_EQ(KrCommonAdapter::convertToJsonData(GetParam().input), GetParam().expected);
    EXPECT_EQ(capture.count("[error][jsonStringWithDict]"), GetParam().expected.empty() ? 1u : 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, ConvertToJsonTest,
    ::testing::Values(JsonRow{"TwoWords", Value(Dictionary{{"k", "two words"}}), R"({"k":"twowords"})"},
                      JsonRow{"Nested", Value(Dictionary{{"a", Array{1, "x y", Dictionary{{"b", true}}}}}),
                              R"({"a":[1,"xy",{"b":true}]})"},
                      JsonRow{"Empty", Value(Dictionary{}), "{}"},
                      JsonRow{"Unwritable", Value(Dictionary{{"d", platform::Data{1, 2}}}), ""},
                      JsonRow{"Nil", Value(), ""}),
    [](const auto& info) { return std::string(info.param.name); });

// ---- Damaged files.

struct DamageRow {
    const char* name;
    std::string bytes;
};

class AdapterDamagedQueueTest : public AdapterTest, public ::testing::WithParamInterface<DamageRow> {};

TEST_P(AdapterDamagedQueueTest, CountsAsAnEmptyQueueAndIsReplaced) {
    ASSERT_TRUE(FileManager::writeAtomically(KrCommonAdapter::statisInfoFilePathName(), GetParam().bytes));
    adapter_->reportRequestStatInfo(record(1));
    auto file = queueFile();
    ASSERT_TRUE(file.has_value());
    EXPECT_EQ(seqs(*file), std::vector<std::int64_t>{1});
}

std::string validQueueText() { return *PropertyList::writeXML(Value(records(0, 3))); }

INSTANTIATE_TEST_SUITE_P(
    Files, AdapterDamagedQueueTest,
    ::testing::Values(DamageRow{"Empty", ""}, DamageRow{"Truncated", validQueueText().substr(0, 180)},
                      DamageRow{"BinaryGarbage", std::string("bplist00\xff\x00\x13\x37garbage", 19)},
                      DamageRow{"NotAPropertyList", "statistics, but not as a list"},
                      DamageRow{"NotAnArray", *PropertyList::writeXML(Value(Dictionary{{"seq", 5}}))}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(AdapterTest, AnUnreadableQueueCountsAsEmpty) {
    // A folder where the file should be cannot be read as a list, nor replaced.
    ASSERT_TRUE(FileManager::createDirectoryAtPath(KrCommonAdapter::statisInfoFilePathName(), true));
    adapter_->reportRequestStatInfo(record(1));
    EXPECT_TRUE(capture_.contains("statistics count [ 1 ] ********"));
    EXPECT_TRUE(capture_.contains("writeToFile is fail "));
}

TEST_F(AdapterTest, AnUnwritableFolderIsLoggedAndTheUploadStillRuns) {
    // The storage folder's name is taken by a file, so nothing can be written in it.
    ASSERT_TRUE(FileManager::createDirectoryAtPath(home_.library(), true));
    ASSERT_TRUE(FileManager::writeAtomically(home_.library() + "/kr_sdks_kvstorage", "in the way"));
    adapter_->sendReportRequest(records(0, 5));
    EXPECT_TRUE(capture_.contains("writeToFile is fail "));
    ASSERT_TRUE(waitIdle());
    auto sent = batches();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(seqs(*sent[0]["statList"].array()), range(0, 5));
}

// ---- Threads.

// Records reported from several threads while batches upload: each one ends in
// exactly one place (a batch the server received, the file, or dropped with a
// line), never two, and the file is always whole.
TEST_F(AdapterTest, RecordsFromSeveralThreadsAreAccountedForExactlyOnce) {
    constexpr int kThreads = 4;
    constexpr int kPerThread = 60;
    std::vector<std::thread> threads;
    std::atomic<int> finished{0};
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kPerThread; ++i) {
                adapter_->reportRequestStatInfo(record(t * 1000 + i));
                std::this_thread::sleep_for(std::chrono::microseconds(200));
            }
            ++finished;
        });
    }
    MainQueue::runUntil([&] { return finished == kThreads; }, 60);
    for (auto& thread : threads) thread.join();
    ASSERT_TRUE(waitIdle());

    std::multiset<std::int64_t> seen;
    for (const auto& batch : batches())
        for (auto s : seqs(*batch["statList"].array())) seen.insert(s);
    if (auto file = queueFile())
        for (auto s : seqs(*file)) seen.insert(s);
    const std::size_t dropped = capture_.count("is reporting....");
    EXPECT_EQ(seen.size() + dropped, std::size_t(kThreads * kPerThread));
    for (auto s : seen) EXPECT_EQ(seen.count(s), 1u) << s;
}

}  // namespace
}  // namespace krcommon

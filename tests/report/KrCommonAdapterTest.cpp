// The statistics adapter against a real HTTPS server on 127.0.0.1, real files in a
// temporary app home and the real main queue, which runs the uploads' completions.
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

namespace krcommon {
namespace {

using namespace platform;

Value record(int seq) { return Value(Dictionary{{"seq", seq}, {"event", "login"}}); }
Array records(int count) {
    Array out;
    for (int seq = 0; seq < count; ++seq) out.push_back(record(seq));
    return out;
}

class AdapterTest : public ::testing::Test {
protected:
    void SetUp() override {
        const auto answer = [this](const httplib::Request& q, httplib::Response& r) {
            r.status = q.method == "POST" ? status_.load() : 200;
            r.set_content(R"({"code":0})", "application/json");
        };
        server_->route("POST", "/loginstat", answer).route("GET", "/kruserstat", answer).start();
        moveAccountHostTo(server_->port());
        adapter_->httpManager()->sessionConfiguration()->addTrustAnchorPEM(test::TestCertificates::shared().authorityPEM());
    }
    void TearDown() override { settle(); }

    static void moveAccountHostTo(int port) {
        KIHostService::service().updateHostServers(Value(Dictionary{{"accountHost", "127.0.0.1:" + std::to_string(port)}}));
    }
    std::optional<Array> queueFile() const {  // nothing when there is no readable array
        const auto list = PropertyList::readFile(queue_);
        return list && list->array() ? std::optional<Array>(*list->array()) : std::nullopt;
    }
    // Runs the main queue until no batch is in flight: the upload's completion has run.
    bool settle() { return MainQueue::runUntil([&] { return !adapter_->reporting(); }, 20); }
    std::vector<Value> sent(const char* key = "statList") const {  // from each body the server received
        std::vector<Value> out;
        for (const auto& request : server_->requests()) {
            const Value body = JSONSerialization::parse(request.body).value_or(Value());
            out.push_back(key ? body[key] : body);
        }
        return out;
    }

    test::TempAppHome home_;
    test::LogCapture log_;
    const std::string queue_ = KrCommonAdapter::statisInfoFilePathName();
    std::unique_ptr<test::TestServer> server_ = test::TestServer::https(test::TestCertificates::shared().server);
    std::shared_ptr<KrCommonAdapter> adapter_ = KrCommonAdapter::create();
    std::atomic<int> status_{200};
};

TEST_F(AdapterTest, FourRecordsWaitInTheFileAndTheFifthSendsOneBatch) {
    adapter_->reportRequestStatInfo(Value());
    adapter_->sendReportRequest(std::nullopt);
    EXPECT_EQ(log_.count("repInfoList is nil...."), 2u);
    for (int i = 0; i < 5; ++i) {
        adapter_->reportRequestStatInfo(record(i));
        EXPECT_EQ(queueFile(), records(i + 1));  // written before any upload
        EXPECT_TRUE(log_.contains("statistics count [ " + std::to_string(i + 1) + " ] ********"));
    }
    EXPECT_EQ(log_.count("postDicInfo==="), 1u);
    ASSERT_TRUE(adapter_->reporting() && settle());
    EXPECT_FALSE(FileManager::fileExistsAtPath(queue_));
    const auto& infos = KRAppInfos::share();
    const Value bundleId = Bundle::mainBundle()->objectForInfoDictionaryKey("CFBundleIdentifier");
    const Dictionary expected{{"protocolVersion", "200"}, {"clientVersion", "unknow"}, {"businessType", "-1"},
                              {"platformVersion", "11"}, {"sdkVersion", "unknow"}, {"appName", format("IOS-%@", bundleId)},
                              {"deviceId", "unknow"}, {"osVersion", *infos.osVersion()}, {"deviceModel", *infos.deviceModel()},
                              {"deviceName", Device::currentDevice().name()}, {"statList", records(5)}};
    ASSERT_EQ(sent(nullptr), std::vector<Value>{Value(expected)});
    EXPECT_EQ(sent(nullptr)[0].dictionary()->keys(), expected.keys());
    const auto used = adapter_->httpManager();
    adapter_->setHttpManager(nullptr);  // none means a fresh one
    EXPECT_TRUE(adapter_->httpManager() && adapter_->httpManager() != used);
}

TEST_F(AdapterTest, AFailedUploadKeepsTheQueueAndARecordDuringAnUploadIsDropped) {
    adapter_->setLoginBaseInfo(Value(Dictionary{{"sdkVersion", "3.1"}}));  // taken key by key
    adapter_->setLoginBaseInfo(Value(Dictionary{{"businessType", " \t\n12abc"}, {"deviceId", "d1"}, {"clientVersion", 7}}));
    adapter_->isSetBaseLoginInfo(true);  // and then no more
    adapter_->setLoginBaseInfo(Value(Dictionary{{"deviceId", "d2"}, {"businessType", 3}}));
    status_ = 500;
    adapter_->sendReportRequest(records(5));
    adapter_->reportRequestStatInfo(record(99));  // the upload's completion has not run yet
    EXPECT_TRUE(log_.contains("is reporting...."));
    ASSERT_TRUE(settle());
    EXPECT_TRUE(log_.contains("report statistics fail next time retry..."));
    EXPECT_EQ(queueFile(), records(5));
    status_ = 200;
    adapter_->reportRequestStatInfo(record(5));  // the next record retries them all
    ASSERT_TRUE(settle());
    EXPECT_EQ(sent(), (std::vector<Value>{Value(records(5)), Value(records(6))}));
    EXPECT_FALSE(queueFile());
    for (const auto& [key, value] : Dictionary{{"businessType", "12"}, {"deviceId", "d1"}, {"clientVersion", 7},
                                               {"protocolVersion", "200"}, {"sdkVersion", "3.1"}})
        EXPECT_EQ(sent(nullptr).at(1)[key], value) << key;
}

TEST_F(AdapterTest, AQueueOfFiftyIsSentAndOneAboveIsDiscarded) {
    for (const int stored : {49, 50}) {
        ASSERT_TRUE(PropertyList::writeFile(queue_, Value(records(stored)), true));
        adapter_->reportRequestStatInfo(record(stored));
        ASSERT_TRUE(settle());
        EXPECT_FALSE(queueFile()) << stored;
    }
    EXPECT_EQ(sent(), std::vector<Value>{Value(records(50))});
    adapter_->reportRequestStatInfo(record(100));
    EXPECT_EQ(queueFile(), Array{record(100)});
}

TEST_F(AdapterTest, TheLegacyQueueMovesToLibraryAndIsMergedAfterTheNewRecords) {
    const std::string documents = *KrCommonAdapter::documentFilePath("statisticsInfoList");
    const std::string library = KrCommonAdapter::LibraryFilePath("statisticsInfoList");
    ASSERT_TRUE(FileManager::createDirectoryAtPath(home_.documents(), true));
    ASSERT_TRUE(PropertyList::writeFile(documents, Value(Array{record(20), record(21)}), true));
    adapter_->moveCacheFromDocumentToLibrayrIfNeeded();
    EXPECT_TRUE(adapter_->moveDocumentToLibrary() && FileManager::fileExistsAtPath(library));
    ASSERT_TRUE(PropertyList::writeFile(queue_, Value(records(1)), true));
    adapter_->reportRequestStatInfo(record(10));
    EXPECT_FALSE(FileManager::fileExistsAtPath(library) || FileManager::fileExistsAtPath(documents));
    EXPECT_EQ(queueFile(), (Array{record(0), record(10), record(20), record(21)}));
}

TEST_F(AdapterTest, AUserActionIsOneGetWithItsQueryAndAFailureIsLogged) {
    adapter_->setLoginBaseInfo(Value(Dictionary{{"businessType", 42}}));
    const auto before = std::chrono::system_clock::now().time_since_epoch() / std::chrono::milliseconds(1);
    adapter_->reportActionCategory(std::nullopt, "tap", Value(Dictionary{{"APPID", "9"}, {"note", "a b"}, {"n", 1}}));
    ASSERT_TRUE(MainQueue::runUntil([&] { return log_.count("[info][reportActionInfo]=success [dec]=") == 1; }, 20));
    const auto query = server_->requests().at(0);
    EXPECT_EQ(query.method + query.path + "?" + query.queryValue("category") + "&" + query.queryValue("action"),
              "GET/kruserstat?&tap");
    // The query holds quotes, which a URL may not: the whole query is encoded once more.
    EXPECT_EQ(httplib::detail::decode_url(query.queryValue("extdata"), false), R"({"APPID":"9","note":"ab","n":1})");
    const auto flowid = std::stoll(query.queryValue("flowid")), reqid = std::stoll(query.queryValue("reqid"));
    EXPECT_TRUE(before <= flowid && flowid <= reqid && reqid < before + 60000) << flowid << " " << reqid;
    EXPECT_FALSE(adapter_->reporting() || queueFile());
    moveAccountHostTo(test::closedPort());
    adapter_->reportActionCategory("c", "a", Value());
    EXPECT_TRUE(MainQueue::runUntil([&] { return log_.count("[error][reportActionInfo]=fail [dec]=Error "
                                                            "Domain=NSURLErrorDomain Code=-1004") == 1; }, 20));
    EXPECT_EQ(KrCommonAdapter::convertToJsonData(Value(Dictionary{{"d", Data{1}}})), "");
    EXPECT_EQ(log_.count("[error][jsonStringWithDict]"), 1u);
}

TEST_F(AdapterTest, ADamagedQueueCountsAsEmptyAndAnUnwritableOneStillUploads) {
    ASSERT_TRUE(FileManager::writeAtomically(queue_, PropertyList::writeXML(Value(records(3))).value().substr(0, 180)));
    adapter_->reportRequestStatInfo(record(0));
    EXPECT_EQ(queueFile(), records(1));
    ASSERT_TRUE(FileManager::removeItemAtPath(home_.library() + "/kr_sdks_kvstorage"));
    ASSERT_TRUE(FileManager::writeAtomically(home_.library() + "/kr_sdks_kvstorage", "a file in the folder's place"));
    adapter_->sendReportRequest(records(5));
    EXPECT_TRUE(log_.contains("writeToFile is fail "));
    ASSERT_TRUE(settle());
    EXPECT_EQ(sent(), std::vector<Value>{Value(records(5))});
}

}  // namespace
}  // namespace krcommon

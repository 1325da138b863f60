// The crash test's child: reports records for ever under the app home given, uploading to a closed
// port, so that every batch fails and the queue grows until it passes fifty and starts over.
#include <krcommon/config/KIHostService.h>
#include <krcommon/platform/app/SystemLog.h>
#include <krcommon/platform/dispatch/MainQueue.h>
#include <krcommon/platform/io/SearchPaths.h>
#include <krcommon/report/KrCommonAdapter.h>

#include "CrashRecord.h"

#include <string>

struct Silent final : krcommon::platform::LogSink {
    void write(std::string_view) override {}
};

int main(int argc, char** argv) {
    using namespace krcommon;
    if (argc != 3) return 2;  // APP_HOME CLOSED_PORT
    platform::SearchPaths::setApplicationHome(argv[1]);
    platform::SystemLog::setSink(std::make_shared<Silent>());
    KIHostService::service().updateHostServers(
        platform::Value(platform::Dictionary{{"accountHost", std::string("127.0.0.1:") + argv[2]}}));
    auto adapter = KrCommonAdapter::create();
    for (std::int64_t seq = 0;; ++seq) {
        adapter->reportRequestStatInfo(test::crashRecord(seq));
        if (adapter->reporting()) platform::MainQueue::runUntil([&] { return !adapter->reporting(); }, 5);
    }
}

// The crash test's child: reports records for ever into the queue under the
// app home given as its first argument, uploading to a port on 127.0.0.1 where
// nothing listens (so every batch fails and the queue keeps growing until it
// passes fifty and starts over). The parent kills it at random moments.

#include <krcommon/config/KIHostService.h>
#include <krcommon/platform/app/SystemLog.h>
#include <krcommon/platform/dispatch/MainQueue.h>
#include <krcommon/platform/io/SearchPaths.h>
#include <krcommon/report/KrCommonAdapter.h>

#include "CrashRecord.h"

#include <cstdio>
#include <string>

namespace {
struct Silent final : krcommon::platform::LogSink {
    void write(std::string_view) override {}
};
}  // namespace

int main(int argc, char** argv) {
    using namespace krcommon;
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s APP_HOME CLOSED_PORT\n", argv[0]);
        return 2;
    }
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

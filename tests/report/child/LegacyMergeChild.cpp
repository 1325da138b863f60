// The legacy-merge crash test's child: reports one record into the app home
// given as its first argument, which merges the legacy queue file into the
// queue file. It writes "R" to stdout just before the report and "D" once it
// returned, so that the parent knows where its kill landed.

#include <krcommon/platform/io/SearchPaths.h>
#include <krcommon/report/KrCommonAdapter.h>

#include <unistd.h>

#include <cstdio>

int main(int argc, char** argv) {
    using namespace krcommon;
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s APP_HOME\n", argv[0]);
        return 2;
    }
    platform::SearchPaths::setApplicationHome(argv[1]);
    auto adapter = KrCommonAdapter::create();
    if (::write(1, "R", 1) != 1) return 3;
    adapter->reportRequestStatInfo(platform::Value(platform::Dictionary{{"seq", -1}}));
    if (::write(1, "D", 1) != 1) return 3;
    ::_exit(0);  // nothing at exit may touch the files the parent checks
}

// Arbitrary bytes as the statistics queue file and as the legacy queue file:
// the adapter never crashes, and the queue it writes back is exactly the
// records the two files really held around the new one, in order; nothing is
// invented and nothing is left out.

#include <krcommon/config/KIHostService.h>
#include <krcommon/platform/app/SystemLog.h>
#include <krcommon/platform/dispatch/MainQueue.h>
#include <krcommon/platform/io/FileManager.h>
#include <krcommon/platform/io/PropertyList.h>
#include <krcommon/platform/io/SearchPaths.h>
#include <krcommon/report/KrCommonAdapter.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>

using namespace krcommon;
using platform::Array;
using platform::FileManager;
using platform::Value;

namespace {

// Swallows the lines and notes whether a write failed.
struct Watch final : platform::LogSink {
    std::atomic<bool> writeFailed{false};
    void write(std::string_view line) override {
        if (line == "writeToFile is fail ") writeFailed = true;
    }
};

// A port on 127.0.0.1 that nothing listens on: bound once, then released.
int closedPort() {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        std::abort();
    ::close(fd);
    return ntohs(address.sin_port);
}

Array recordsIn(std::string_view bytes) {
    auto list = platform::PropertyList::parse(bytes);
    if (list && list->array()) return *list->array();
    return {};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const auto watch = std::make_shared<Watch>();
    static const auto adapter = [] {
        platform::SystemLog::setSink(watch);
        std::string home = (std::filesystem::temp_directory_path() / "krcommon-report-fuzz-XXXXXX").string();
        if (!::mkdtemp(home.data())) std::abort();
        platform::SearchPaths::setApplicationHome(home);
        // Uploads go where nothing listens, so they fail at once and keep the file.
        KIHostService::service().updateHostServers(platform::Value(
            platform::Dictionary{{"accountHost", "127.0.0.1:" + std::to_string(closedPort())}}));
        return KrCommonAdapter::create();
    }();
    if (size == 0) return 0;

    // The first byte splits the rest between the queue file and the legacy file.
    const std::string_view rest(reinterpret_cast<const char*>(data) + 1, size - 1);
    const std::size_t cut = rest.size() * data[0] / 255;
    const std::string_view queueBytes = rest.substr(0, cut);
    const std::string_view legacyBytes = rest.substr(cut);

    const std::string queuePath = KrCommonAdapter::statisInfoFilePathName();
    const std::string legacyPath = *KrCommonAdapter::documentFilePath(KrCommonAdapter::statisticsFileName);
    FileManager::createDirectoryAtPath(platform::SearchPaths::documentsDirectory(), true);
    if (!FileManager::writeAtomically(queuePath, queueBytes) || !FileManager::writeAtomically(legacyPath, legacyBytes))
        std::abort();

    Array expected = recordsIn(queueBytes);
    const Value added(platform::Dictionary{{"fuzz", "new record"}});
    expected.push_back(added);
    for (auto& record : recordsIn(legacyBytes)) expected.push_back(std::move(record));

    watch->writeFailed = false;
    adapter->reportRequestStatInfo(added);
    if (adapter->reporting() && !platform::MainQueue::runUntil([] { return !adapter->reporting(); }, 10)) std::abort();

    if (FileManager::fileExistsAtPath(legacyPath)) std::abort();  // merged, so deleted
    const bool exists = FileManager::fileExistsAtPath(queuePath);
    if (expected.size() > KrCommonAdapter::reportStatisMax) {
        if (exists) std::abort();  // discarded whole
    } else if (!watch->writeFailed) {
        // The file must be exactly the expected queue, as the writer spells it.
        const auto file = FileManager::contentsAtPath(queuePath);
        const auto want = platform::PropertyList::writeXML(Value(expected));
        if (!file || !want || std::string_view(reinterpret_cast<const char*>(file->data()), file->size()) != *want)
            std::abort();

        // The next record goes after the ones the adapter itself just wrote, the
        // usual case, and the file must still be spelled as the writer spells it.
        if (expected.size() < KrCommonAdapter::reportStatisMax) {
            const Value next(platform::Dictionary{{"fuzz", "next record"}});
            expected.push_back(next);
            adapter->reportRequestStatInfo(next);
            if (adapter->reporting() && !platform::MainQueue::runUntil([] { return !adapter->reporting(); }, 10))
                std::abort();
            const auto again = FileManager::contentsAtPath(queuePath);
            const auto wantAgain = platform::PropertyList::writeXML(Value(expected));
            if (!watch->writeFailed &&
                (!again || !wantAgain ||
                 std::string_view(reinterpret_cast<const char*>(again->data()), again->size()) != *wantAgain))
                std::abort();
        }
    }
    platform::MainQueue::drain();
    return 0;
}

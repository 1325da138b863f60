// Arbitrary whitelist files: whatever the file holds (XML or binary property
// list, any shape), the lookup answers without crashing, and a host is only ever
// accepted when the file really lists it as an https entry.

#include <krcommon/http/KRSDKMemberHttpManager.h>
#include <krcommon/platform/app/SystemLog.h>
#include <krcommon/platform/io/FileManager.h>
#include <krcommon/platform/io/JSONSerialization.h>
#include <krcommon/platform/io/PropertyList.h>
#include <krcommon/platform/io/SearchPaths.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

using namespace krcommon;

namespace {

struct Quiet final : platform::LogSink {
    void write(std::string_view) override {}
};

// What the lookup should answer, worked out independently.
bool listed(const platform::Value& root, const std::string& host) {
    const auto* lists = root.dictionary();
    if (!lists || host.empty()) return false;
    for (const char* key : {"loginSrvIpList", "portalSrvIpList"}) {
        const auto* text = (*lists)[key].string();
        if (!text) continue;
        const auto parsed = platform::JSONSerialization::parse(*text);
        if (!parsed || !parsed->array()) continue;
        for (const auto& entry : *parsed->array()) {
            const auto* type = entry["type"].string();
            const auto* ip = entry["ip"].string();
            if (type && ip && *type == "https" && *ip == host) return true;
        }
    }
    return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const auto home = [] {
        platform::SystemLog::setSink(std::make_shared<Quiet>());
        std::string path = (std::filesystem::temp_directory_path() / "krcommon-whitelist-fuzz-XXXXXX").string();
        if (!::mkdtemp(path.data())) std::abort();
        platform::SearchPaths::setApplicationHome(path);
        platform::FileManager::createDirectoryAtPath(path + "/Library/kr_sdks_kvstorage", true);
        return path;
    }();
    (void)home;
    static const auto manager = KRSDKMemberHttpManager::create();
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    {
        // A plain write: the lookup reads whatever is there, and fsync per input would cost the run.
        std::ofstream file(KRSDKMemberHttpManager::plistFilePath(), std::ios::binary | std::ios::trunc);
        file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        if (!file) std::abort();
    }

    const auto root = platform::PropertyList::parse(bytes);
    for (const std::string host : {"127.0.0.1", "10.0.0.1", "api.example.test"}) {
        const bool answer = manager->isHostInTheWhiteList(host);
        if (answer != (root && listed(*root, host))) std::abort();
    }
    return 0;
}

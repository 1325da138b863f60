#include <krcommon/platform/app/Device.h>

#include <krcommon/platform/app/Bundle.h>
#include <krcommon/platform/io/FileManager.h>

#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <array>
#include <cstdint>

namespace krcommon::platform {

namespace {

// Label mixed into every vendor identifier, so that it shares nothing with
// other ids derived from the same machine id.
constexpr std::string_view vendorLabel = "krcommon.identifierForVendor\n";

std::string joinedPath(const std::string& root, const char* file) {
    std::string path = root;
    if (path.empty() || path.back() != '/') path.push_back('/');
    path += file[0] == '/' ? file + 1 : file;
    return path;
}

std::optional<std::string> readText(const std::string& path) {
    auto bytes = FileManager::contentsAtPath(path);
    if (!bytes) return std::nullopt;
    return std::string(bytes->begin(), bytes->end());
}

// The value of an environment-style assignment (os-release, machine-info):
// unquoted, or in double quotes with backslash escapes, or in single quotes.
std::string unquoted(std::string_view raw) {
    while (!raw.empty() && (raw.back() == ' ' || raw.back() == '\t' || raw.back() == '\r')) raw.remove_suffix(1);
    if (raw.size() >= 2 && raw.front() == '\'' && raw.back() == '\'') return std::string(raw.substr(1, raw.size() - 2));
    if (raw.size() >= 2 && raw.front() == '"' && raw.back() == '"') {
        raw = raw.substr(1, raw.size() - 2);
        std::string out;
        for (std::size_t i = 0; i < raw.size(); ++i) {
            if (raw[i] == '\\' && i + 1 < raw.size()) ++i;
            out.push_back(raw[i]);
        }
        return out;
    }
    return std::string(raw);
}

std::optional<std::array<std::uint8_t, 16>> parseMachineId(std::string_view text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ' || text.back() == '\r')) text.remove_suffix(1);
    if (text.size() != 32) return std::nullopt;
    std::array<std::uint8_t, 16> id{};
    auto nibble = [](char c) -> int {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        if (c >= 'A' && c <= 'F') return c - 'A' + 10;
        return -1;
    };
    bool allZero = true;
    for (std::size_t i = 0; i < 16; ++i) {
        const int hi = nibble(text[2 * i]);
        const int lo = nibble(text[2 * i + 1]);
        if (hi < 0 || lo < 0) return std::nullopt;
        id[i] = static_cast<std::uint8_t>(hi << 4 | lo);
        allZero = allZero && id[i] == 0;
    }
    if (allZero) return std::nullopt;
    return id;
}

}  // namespace

const Device& Device::currentDevice() {
    static const Device device("/");
    return device;
}

Device::Device(std::string rootFolder) : root_(std::move(rootFolder)) {}

std::optional<std::string> Device::fileValue(std::initializer_list<const char*> files, std::string_view key) const {
    for (const char* file : files) {
        auto text = readText(joinedPath(root_, file));
        if (!text) continue;
        std::string_view rest(*text);
        while (!rest.empty()) {
            const auto end = rest.find('\n');
            std::string_view line = rest.substr(0, end);
            rest = end == std::string_view::npos ? std::string_view{} : rest.substr(end + 1);
            while (!line.empty() && (line.front() == ' ' || line.front() == '\t')) line.remove_prefix(1);
            if (line.size() > key.size() && line.substr(0, key.size()) == key && line[key.size()] == '=') {
                std::string value = unquoted(line.substr(key.size() + 1));
                if (!value.empty()) return value;
            }
        }
        return std::nullopt;  // the first file that exists decides
    }
    return std::nullopt;
}

std::string Device::name() const {
    if (auto pretty = fileValue({"etc/machine-info"}, "PRETTY_HOSTNAME")) return *pretty;
    char host[256] = {};
    if (::gethostname(host, sizeof host - 1) == 0 && host[0]) return host;
    return "localhost";
}

std::string Device::systemName() const {
    return fileValue({"etc/os-release", "usr/lib/os-release"}, "NAME").value_or("Linux");
}

std::string Device::systemVersion() const {
    if (auto version = fileValue({"etc/os-release", "usr/lib/os-release"}, "VERSION_ID")) return *version;
    utsname names{};
    ::uname(&names);
    return names.release;
}

std::string Device::model() const {
    utsname names{};
    ::uname(&names);  // its status is of no use: the fields are zeroed either way
    return names.machine;
}

std::optional<std::string> Device::machineId() const {
    for (const char* file : {"etc/machine-id", "var/lib/dbus/machine-id"}) {
        if (auto text = readText(joinedPath(root_, file))) {
            if (parseMachineId(*text)) return text;
        }
    }
    return std::nullopt;
}

std::string Device::vendorOf(std::optional<std::string_view> bundleIdentifier) {
    if (!bundleIdentifier) return {};
    const auto dot = bundleIdentifier->rfind('.');
    if (dot == std::string_view::npos) return std::string(*bundleIdentifier);
    return std::string(bundleIdentifier->substr(0, dot));
}

std::optional<std::string> Device::identifierForVendor() const {
    const auto identifier = Bundle::mainBundle()->bundleIdentifier();
    return identifierForVendor(identifier ? std::optional<std::string_view>(*identifier) : std::nullopt);
}

std::optional<std::string> Device::identifierForVendor(std::optional<std::string_view> bundleIdentifier) const {
    const auto text = machineId();
    if (!text) return std::nullopt;
    const auto key = *parseMachineId(*text);
    std::string message(vendorLabel);
    message += vendorOf(bundleIdentifier);

    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (!HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
              reinterpret_cast<const unsigned char*>(message.data()), message.size(), digest, &length) ||
        length < 16)
        return std::nullopt;
    digest[6] = static_cast<unsigned char>((digest[6] & 0x0F) | 0x40);  // version 4
    digest[8] = static_cast<unsigned char>((digest[8] & 0x3F) | 0x80);  // RFC 4122 variant

    static constexpr char hex[] = "0123456789ABCDEF";
    std::string uuid;
    uuid.reserve(36);
    for (int i = 0; i < 16; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) uuid.push_back('-');
        uuid.push_back(hex[digest[i] >> 4]);
        uuid.push_back(hex[digest[i] & 0x0F]);
    }
    return uuid;
}

}  // namespace krcommon::platform

#include <krcommon/platform/app/Bundle.h>

#include <krcommon/platform/io/FileManager.h>
#include <krcommon/platform/io/PropertyList.h>

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <unordered_map>

namespace krcommon::platform {

namespace {

constexpr std::string_view defaultTable = "Localizable";
constexpr std::string_view fallbackRegion = "en";

struct Globals {
    std::mutex mutex;
    std::unordered_map<std::string, std::shared_ptr<Bundle>> bundles;
    std::optional<Dictionary> mainInfo;
    std::vector<std::string> preferred;  // host setting; empty when none
};

Globals& globals() {
    static Globals instance;
    return instance;
}

std::string normalized(const std::string& path) {
    std::error_code ec;
    auto absolute = std::filesystem::absolute(path, ec);
    std::string out = (ec ? std::filesystem::path(path) : absolute).lexically_normal().string();
    while (out.size() > 1 && out.back() == '/') out.pop_back();
    return out;
}

std::string executableFolder() {
    char buffer[4096];
    const ssize_t n = ::readlink("/proc/self/exe", buffer, sizeof buffer - 1);
    if (n <= 0) return normalized(".");
    std::string path(buffer, static_cast<std::size_t>(n));
    const auto slash = path.rfind('/');
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string lower(std::string_view s) {
    std::string out(s);
    for (auto& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return out;
}

std::string upper(std::string_view s) {
    std::string out(s);
    for (auto& c : out) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return out;
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
           });
}

std::vector<std::string_view> split(std::string_view s, std::string_view separators) {
    std::vector<std::string_view> parts;
    std::size_t start = 0;
    for (;;) {
        const auto end = s.find_first_of(separators, start);
        parts.push_back(s.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start));
        if (end == std::string_view::npos) return parts;
        start = end + 1;
    }
}

// The folder names a language tag may be shipped under, most specific first.
std::vector<std::string> candidatesFor(const std::string& tag) {
    std::vector<std::string> out{tag};
    auto add = [&](std::string name) {
        if (std::find(out.begin(), out.end(), name) == out.end()) out.push_back(std::move(name));
    };
    const auto parts = split(tag, "-");
    const std::string language(parts.front());
    if (tag == "zh-Hans") {
        add("zh-CN");
        add("zh_CN");
    } else if (tag == "zh-Hant") {
        add("zh-TW");
        add("zh_TW");
    } else if (parts.size() >= 2) {
        const std::string region(parts.back());
        if (region.size() == 2 || region.size() == 3) {
            add(language + "-" + region);
            add(language + "_" + region);
        }
    }
    add(language);
    return out;
}

std::optional<Dictionary> readInfoPlist(const std::string& folder) {
    auto value = PropertyList::readFile(folder + "/Info.plist");
    if (!value || !value->isDictionary()) return std::nullopt;
    return *value->dictionary();
}

}  // namespace

struct Bundle::State {
    std::mutex mutex;
    bool infoRead = false;
    Dictionary info;  // Info.plist of the folder
    std::optional<std::vector<std::string>> localizations;
    // Parsed table files by path; null for a file that exists but does not parse.
    std::unordered_map<std::string, std::shared_ptr<const StringsTable::Map>> files;
    // Resolved tables by localisation, development region and table name.
    std::unordered_map<std::string, std::shared_ptr<const StringsTable::Map>> resolved;
};

Bundle::Bundle(std::string path, bool isMain) : path_(std::move(path)), isMain_(isMain), state_(new State) {}

Bundle::~Bundle() = default;

std::shared_ptr<Bundle> Bundle::mainBundle() {
    static const std::string path = executableFolder();
    auto& g = globals();
    std::lock_guard lock(g.mutex);
    auto& slot = g.bundles[path];
    if (!slot) slot = std::shared_ptr<Bundle>(new Bundle(path, true));
    return slot;
}

std::shared_ptr<Bundle> Bundle::bundleWithPath(const std::string& path) {
    if (path.empty()) return nullptr;
    const std::string folder = normalized(path);
    bool isDirectory = false;
    if (!FileManager::fileExistsAtPath(folder, &isDirectory) || !isDirectory) return nullptr;
    auto main = mainBundle();
    if (main->bundlePath() == folder) return main;
    auto& g = globals();
    std::lock_guard lock(g.mutex);
    auto& slot = g.bundles[folder];
    if (!slot) slot = std::shared_ptr<Bundle>(new Bundle(folder, false));
    return slot;
}

void Bundle::setMainInfoDictionary(std::optional<Dictionary> info) {
    auto& g = globals();
    std::lock_guard lock(g.mutex);
    g.mainInfo = std::move(info);
}

void Bundle::setPreferredLanguages(std::vector<std::string> languages) {
    auto& g = globals();
    std::lock_guard lock(g.mutex);
    g.preferred = std::move(languages);
}

std::vector<std::string> Bundle::preferredLanguages() {
    std::vector<std::string> names;
    {
        auto& g = globals();
        std::lock_guard lock(g.mutex);
        names = g.preferred;
    }
    if (names.empty()) {
        if (const char* list = std::getenv("LANGUAGE"); list && *list) {
            for (auto name : split(list, ":")) names.emplace_back(name);
        }
        for (const char* variable : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
            if (const char* value = std::getenv(variable); value && *value) {
                names.emplace_back(value);
                break;
            }
        }
    }
    std::vector<std::string> tags;
    for (const auto& name : names) {
        auto tag = languageTag(name);
        if (tag && std::find(tags.begin(), tags.end(), *tag) == tags.end()) tags.push_back(std::move(*tag));
    }
    return tags;
}

std::optional<std::string> Bundle::languageTag(std::string_view locale) {
    locale = locale.substr(0, locale.find_first_of(".@"));
    if (locale.empty() || locale == "C" || locale == "POSIX") return std::nullopt;
    const auto parts = split(locale, "_-");
    const std::string language = lower(parts.front());
    if (language.empty()) return std::nullopt;
    if (language == "zh") {
        // Chinese tables are named after the script.
        for (std::size_t i = 1; i < parts.size(); ++i) {
            const std::string part = lower(parts[i]);
            if (part == "hant" || part == "tw" || part == "hk" || part == "mo") return "zh-Hant";
            if (part == "hans" || part == "cn" || part == "sg") return "zh-Hans";
        }
        return "zh-Hans";
    }
    std::string tag = language;
    for (std::size_t i = 1; i < parts.size(); ++i) {
        if (parts[i].empty()) continue;
        tag.push_back('-');
        if (parts[i].size() == 4) {
            // A script: title case.
            tag += upper(parts[i].substr(0, 1)) + lower(parts[i].substr(1));
        } else {
            tag += upper(parts[i]);
        }
    }
    return tag;
}

Dictionary Bundle::infoDictionary() const {
    if (isMain_) {
        auto& g = globals();
        std::lock_guard lock(g.mutex);
        if (g.mainInfo) return *g.mainInfo;
    }
    std::lock_guard lock(state_->mutex);
    if (!state_->infoRead) {
        state_->infoRead = true;
        if (auto info = readInfoPlist(path_)) state_->info = std::move(*info);
    }
    return state_->info;
}

Value Bundle::objectForInfoDictionaryKey(std::string_view key) const { return infoDictionary()[key]; }

std::optional<std::string> Bundle::bundleIdentifier() const {
    const Value id = objectForInfoDictionaryKey("CFBundleIdentifier");
    if (const auto* s = id.string()) return *s;
    return std::nullopt;
}

std::string Bundle::developmentRegion() const {
    const Value region = objectForInfoDictionaryKey("CFBundleDevelopmentRegion");
    if (const auto* s = region.string(); s && !s->empty()) return *s;
    return std::string(fallbackRegion);
}

std::vector<std::string> Bundle::localizations() const {
    std::lock_guard lock(state_->mutex);
    if (!state_->localizations) {
        std::vector<std::string> names;
        std::error_code ec;
        for (std::filesystem::directory_iterator it(path_, ec), end; !ec && it != end; it.increment(ec)) {
            const std::string name = it->path().filename().string();
            constexpr std::string_view suffix = ".lproj";
            if (name.size() > suffix.size() && name.ends_with(suffix) && it->is_directory(ec))
                names.push_back(name.substr(0, name.size() - suffix.size()));
        }
        std::sort(names.begin(), names.end());
        state_->localizations = std::move(names);
    }
    return *state_->localizations;
}

std::string Bundle::preferredLocalization() const {
    const auto available = localizations();
    auto match = [&](const std::string& name) -> std::optional<std::string> {
        for (const auto& folder : available) {
            if (equalsIgnoringCase(folder, name)) return folder;
        }
        return std::nullopt;
    };
    for (const auto& tag : preferredLanguages()) {
        for (const auto& candidate : candidatesFor(tag)) {
            if (auto folder = match(candidate)) return *folder;
        }
    }
    const std::string region = developmentRegion();
    return match(region).value_or(region);
}

std::vector<std::string> Bundle::searchFolders() const {
    const auto available = localizations();
    std::vector<std::string> folders;
    auto addLocalization = [&](const std::string& name) {
        for (const auto& folder : available) {
            if (equalsIgnoringCase(folder, name)) {
                std::string path = path_ + "/" + folder + ".lproj";
                if (std::find(folders.begin(), folders.end(), path) == folders.end()) folders.push_back(path);
                return;
            }
        }
    };
    addLocalization(preferredLocalization());
    addLocalization(developmentRegion());
    addLocalization("Base");
    folders.push_back(path_);
    return folders;
}

std::shared_ptr<const StringsTable::Map> Bundle::tableFor(const std::string& table) const {
    const auto folders = searchFolders();
    std::string key;
    for (const auto& folder : folders) key.append(folder).push_back('\n');
    key += table;

    std::lock_guard lock(state_->mutex);
    if (auto it = state_->resolved.find(key); it != state_->resolved.end()) return it->second;
    std::shared_ptr<const StringsTable::Map> found;
    for (const auto& folder : folders) {
        const std::string file = folder + "/" + table + ".strings";
        auto cached = state_->files.find(file);
        if (cached == state_->files.end()) {
            if (!FileManager::fileExistsAtPath(file)) continue;
            auto parsed = StringsTable::readFile(file);
            cached = state_->files
                         .emplace(file, parsed ? std::make_shared<const StringsTable::Map>(std::move(*parsed)) : nullptr)
                         .first;
        }
        if (cached->second) {
            found = cached->second;
            break;
        }
    }
    state_->resolved.emplace(std::move(key), found);
    return found;
}

std::string Bundle::localizedStringForKey(std::string_view key, const std::optional<std::string>& value,
                                          const std::optional<std::string>& table) const {
    const std::string name = table && !table->empty() ? *table : std::string(defaultTable);
    if (auto map = tableFor(name)) {
        if (auto it = map->find(std::string(key)); it != map->end()) return it->second;
    }
    if (value && !value->empty()) return *value;
    return std::string(key);
}

std::optional<std::string> Bundle::pathForResource(std::string_view name, std::string_view extension) const {
    std::string file(name);
    if (!extension.empty()) file.append(".").append(extension);
    for (const auto& folder : searchFolders()) {
        std::string path = folder + "/" + file;
        bool isDirectory = false;
        if (FileManager::fileExistsAtPath(path, &isDirectory) && !isDirectory) return path;
    }
    return std::nullopt;
}

std::string Bundle::description() const { return "NSBundle <" + path_ + "> (loaded)"; }

}  // namespace krcommon::platform

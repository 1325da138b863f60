#pragma once

// Bundles: a folder of resources with an information dictionary, shaped like
// an app bundle on the mobile platform.
//
//   <bundle>/Info.plist                    information dictionary (XML or binary)
//   <bundle>/<language>.lproj/<table>.strings
//   <bundle>/Base.lproj/<table>.strings    language-neutral tables
//   <bundle>/<table>.strings               non-localised tables
//
// The main bundle is the host application: the folder of the running
// executable, with the Info.plist found there, or the information dictionary
// the host hands over with setMainInfoDictionary().
//
// Language choice. The preferred languages are, in order of precedence: the
// list the host set with setPreferredLanguages(); else $LANGUAGE (a colon
// separated list) followed by the first of $LC_ALL, $LC_MESSAGES and $LANG
// that is set. Locale names become language tags (languageTag()): the encoding
// and modifier are dropped and "_" becomes "-", and Chinese is named by its
// script as app bundles name it: zh_CN and zh_SG become "zh-Hans", zh_TW,
// zh_HK and zh_MO "zh-Hant", a bare "zh" "zh-Hans". "C" and "POSIX" name no
// language. A bundle's localisation is the first preferred language for which
// it has a folder, tried as the tag ("zh-Hans", "en-GB"), as language and
// region with "-" and with "_" ("zh-CN", "zh_CN") and as the bare language
// ("zh", "en"); without a match it is the development region
// (CFBundleDevelopmentRegion, "en" when the bundle names none).
//
// Table lookup. A table is read from the first of these folders that holds a
// readable file of it: the chosen localisation's folder, the development
// region's folder, Base.lproj, the bundle's top folder. Folder names match
// without regard to case. A table is parsed once per bundle and kept, and so
// is the bundle for its path, so every lookup after the first is a hash
// lookup; a table added or changed later is not seen. All operations are
// thread-safe.

#include <krcommon/platform/app/StringsTable.h>
#include <krcommon/platform/core/Value.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace krcommon::platform {

class KRCOMMON_EXPORT Bundle final : public Object {
public:
    /// The host application's bundle: the executable's folder.
    static std::shared_ptr<Bundle> mainBundle();

    /// The bundle at `path` (a folder), or nullptr when no folder is there. The
    /// same object is answered for the same path for the process's lifetime.
    static std::shared_ptr<Bundle> bundleWithPath(const std::string& path);

    /// Replaces the main bundle's information dictionary, ahead of its
    /// Info.plist file; nullopt goes back to the file. For hosts that carry no
    /// Info.plist beside their executable.
    static void setMainInfoDictionary(std::optional<Dictionary> info);

    /// The host's preferred languages, most preferred first (locale names or
    /// language tags). An empty list goes back to the environment.
    static void setPreferredLanguages(std::vector<std::string> languages);

    /// The preferred languages as language tags, most preferred first, without
    /// duplicates. See the file comment.
    static std::vector<std::string> preferredLanguages();

    /// The language tag of a locale name or tag ("zh_CN.UTF-8" gives "zh-Hans",
    /// "de_DE@euro" "de-DE", "en" "en"); nullopt for "C", "POSIX" or an empty name.
    static std::optional<std::string> languageTag(std::string_view locale);

    /// The folder of the bundle, absolute.
    [[nodiscard]] const std::string& bundlePath() const noexcept { return path_; }

    /// The information dictionary: Info.plist of the folder (read once), or for
    /// the main bundle the host's dictionary when set. Empty when there is none.
    [[nodiscard]] Dictionary infoDictionary() const;

    /// The information dictionary's value for `key`, nil when absent.
    [[nodiscard]] Value objectForInfoDictionaryKey(std::string_view key) const;

    /// "CFBundleIdentifier" when it is a string.
    [[nodiscard]] std::optional<std::string> bundleIdentifier() const;

    /// "CFBundleDevelopmentRegion" when it is a string, else "en".
    [[nodiscard]] std::string developmentRegion() const;

    /// The names of the bundle's localisation folders without ".lproj", sorted.
    [[nodiscard]] std::vector<std::string> localizations() const;

    /// The localisation chosen for the current preferred languages (see the
    /// file comment).
    [[nodiscard]] std::string preferredLocalization() const;

    /// The localised text of `key` in `table` ("Localizable" when absent or
    /// empty). When the table lacks the key, or has no file, the answer is
    /// `value` if it is non-empty, else the key itself.
    [[nodiscard]] std::string localizedStringForKey(std::string_view key, const std::optional<std::string>& value,
                                                    const std::optional<std::string>& table) const;

    /// The path of `<name>.<extension>` in the chosen localisation's folder, the
    /// development region's, Base.lproj or the top folder, in that order; nullopt
    /// when none holds it. An empty extension looks for `name` alone.
    [[nodiscard]] std::optional<std::string> pathForResource(std::string_view name, std::string_view extension) const;

    /// "NSBundle <path> (loaded)", as the platform prints a bundle.
    [[nodiscard]] std::string description() const override;

    ~Bundle() override;
    Bundle(const Bundle&) = delete;
    Bundle& operator=(const Bundle&) = delete;

private:
    struct State;
    Bundle(std::string path, bool isMain);

    // The table file at the head of the lookup chain, parsed and kept; null
    // when no folder in the chain holds a readable table.
    [[nodiscard]] std::shared_ptr<const StringsTable::Map> tableFor(const std::string& table) const;
    [[nodiscard]] std::vector<std::string> searchFolders() const;

    std::string path_;
    bool isMain_;
    std::unique_ptr<State> state_;
};

}  // namespace krcommon::platform

#include <krcommon/platform/app/Bundle.h>

#include <krcommon/platform/io/PropertyList.h>

#include "platform/app/BundleTestSupport.h"
#include "platform/io/TempFolder.h"

#include <gtest/gtest.h>

#include <ostream>

using krcommon::platform::Bundle;
using krcommon::platform::Dictionary;
using krcommon::platform::Value;
using krcommon::test::ScopedEnv;
using krcommon::test::TempFolder;
using krcommon::test::writeTable;

namespace {

// Leaves the process-wide language and main-bundle settings as it found them.
class BundleTest : public ::testing::Test {
protected:
    ~BundleTest() override {
        Bundle::setPreferredLanguages({});
        Bundle::setMainInfoDictionary(std::nullopt);
    }
};

TEST(Bundle, MapsLocaleNamesToLanguageTags) {
    const std::pair<const char*, std::optional<std::string>> rows[] = {
        {"zh_CN.UTF-8", "zh-Hans"}, {"zh_SG", "zh-Hans"},   {"zh", "zh-Hans"},          {"zh_TW.Big5", "zh-Hant"},
        {"zh_HK.UTF-8", "zh-Hant"}, {"zh_MO", "zh-Hant"},   {"zh-Hant-HK", "zh-Hant"},  {"zh-hans", "zh-Hans"},
        {"en_GB.UTF-8", "en-GB"},   {"de_DE@euro", "de-DE"}, {"pt-br", "pt-BR"},        {"sr_Latn_RS", "sr-Latn-RS"},
        {"EN", "en"},               {"C", std::nullopt},    {"C.UTF-8", std::nullopt}, {"POSIX", std::nullopt},
        {"", std::nullopt},         {".UTF-8", std::nullopt}};
    for (const auto& [locale, tag] : rows) EXPECT_EQ(Bundle::languageTag(locale), tag) << locale;
}

TEST_F(BundleTest, PreferredLanguagesComeFromTheHostAheadOfTheEnvironment) {
    ScopedEnv language("LANGUAGE", "fr_FR:de:C"), all("LC_ALL", nullptr), messages("LC_MESSAGES", nullptr),
        lang("LANG", "zh_TW.UTF-8");
    EXPECT_EQ(Bundle::preferredLanguages(), (std::vector<std::string>{"fr-FR", "de", "zh-Hant"}));
    {
        ScopedEnv messagesSet("LC_MESSAGES", "ja_JP.UTF-8");
        EXPECT_EQ(Bundle::preferredLanguages(), (std::vector<std::string>{"fr-FR", "de", "ja-JP"}));
    }
    Bundle::setPreferredLanguages({"zh_CN", "zh-Hans", "en"});
    EXPECT_EQ(Bundle::preferredLanguages(), (std::vector<std::string>{"zh-Hans", "en"}));
}

// A bundle with tables in several localisations, each telling where it lives.
struct LocalizedBundle {
    TempFolder folder;
    std::shared_ptr<Bundle> bundle;

    explicit LocalizedBundle(const char* developmentRegion = nullptr) {
        for (const char* localization : {"en", "de", "zh-Hans", "zh_TW", "pt-BR"})
            writeTable(folder.path(), localization, "Errors", {{"where", localization}});
        writeTable(folder.path(), "fr", "Other", {{"where", "fr"}});  // fr has no Errors table
        writeTable(folder.path(), "Base", "BaseOnly", {{"where", "Base"}});
        writeTable(folder.path(), "", "TopOnly", {{"where", "top"}});
        krcommon::test::writeBytes(folder / "de.lproj/Broken.strings", "\"where\" = ");
        writeTable(folder.path(), "en", "Broken", {{"where", "en, as de's is unreadable"}});
        if (developmentRegion) {
            const Value info = Dictionary{{"CFBundleDevelopmentRegion", developmentRegion}};
            krcommon::test::writeBytes(folder / "Info.plist", *krcommon::platform::PropertyList::writeXML(info));
        } else {  // a binary one, as build tools write it
            std::filesystem::copy_file(krcommon::test::dataPath("platform/app/Info.plist"), folder / "Info.plist");
        }
        bundle = Bundle::bundleWithPath(folder.path());
    }
};

struct ChoiceRow {
    const char* name;
    std::vector<std::string> preferred;
    const char* developmentRegion;
    const char* localization;  // chosen folder
    const char* errorsFrom;    // where the "Errors" table is read from
    friend void PrintTo(const ChoiceRow& r, std::ostream* os) { *os << r.name; }
};

class BundleLanguageChoice : public BundleTest, public ::testing::WithParamInterface<ChoiceRow> {};

TEST_P(BundleLanguageChoice, PicksTheFirstPreferredLanguageTheBundleHas) {
    const auto& row = GetParam();
    LocalizedBundle b(row.developmentRegion);
    Bundle::setPreferredLanguages(row.preferred);
    EXPECT_EQ(b.bundle->preferredLocalization(), row.localization);
    EXPECT_EQ(b.bundle->localizedStringForKey("where", std::nullopt, "Errors"), row.errorsFrom);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, BundleLanguageChoice,
    ::testing::Values(ChoiceRow{"BaseLanguageOfARegionalTag", {"de_DE.UTF-8"}, nullptr, "de", "de"},
                      ChoiceRow{"ScriptNamedFolder", {"zh_CN.UTF-8"}, nullptr, "zh-Hans", "zh-Hans"},
                      ChoiceRow{"LegacyUnderscoreFolder", {"zh_TW.UTF-8"}, nullptr, "zh_TW", "zh_TW"},
                      ChoiceRow{"RegionalFolder", {"pt_BR"}, nullptr, "pt-BR", "pt-BR"},
                      ChoiceRow{"FirstTheBundleHasInAnyCase", {"ja", "DE"}, nullptr, "de", "de"},
                      ChoiceRow{"NoneFallsToEnglish", {"ja"}, nullptr, "en", "en"},
                      ChoiceRow{"NoneFallsToTheDevelopmentRegion", {"ja"}, "de", "de", "de"},
                      ChoiceRow{"RegionWithoutFolderAnswersTheKey", {"ja"}, "it", "it", "where"},
                      ChoiceRow{"TableMissingInTheChosenFolder", {"fr"}, "de", "fr", "de"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(BundleTest, TablesFallBackThroughBaseAndTheTopFolderAndMissingKeysAnswerTheKeyOrValue) {
    LocalizedBundle b;
    writeTable(b.folder.path(), "de", "Localizable", {{"where", "default table"}});
    Bundle::setPreferredLanguages({"de"});
    const std::tuple<const char*, std::optional<std::string>, std::optional<std::string>, const char*> rows[] = {
        {"where", std::nullopt, "BaseOnly", "Base"},       {"where", std::nullopt, "TopOnly", "top"},
        {"where", std::nullopt, "Errors", "de"},           {"missing", std::nullopt, "Errors", "missing"},
        {"missing", "", "Errors", "missing"},              {"missing", "fallback", "Errors", "fallback"},
        {"where", "fallback", "NoSuchTable", "fallback"},  {"where", std::nullopt, "NoSuchTable", "where"},
        {"where", std::nullopt, std::nullopt, "default table"}, {"where", std::nullopt, "", "default table"},
        {"where", std::nullopt, "Broken", "en, as de's is unreadable"}};
    for (const auto& [key, value, table, expected] : rows)
        EXPECT_EQ(b.bundle->localizedStringForKey(key, value, table), expected) << key << " in " << table.value_or("-");
}

TEST_F(BundleTest, BundlesAreKeptPerFolderAndReadTheirInfoPlistAndResources) {
    LocalizedBundle b;
    EXPECT_EQ(Bundle::bundleWithPath(b.folder / "absent"), nullptr);
    EXPECT_EQ(Bundle::bundleWithPath(b.folder / "de.lproj/Errors.strings"), nullptr);  // a file
    EXPECT_EQ(Bundle::bundleWithPath(""), nullptr);
    const auto bundle = Bundle::bundleWithPath(b.folder.path() + "/./x/..");
    ASSERT_NE(bundle, nullptr);
    EXPECT_EQ(bundle, b.bundle);
    EXPECT_EQ(Bundle::bundleWithPath(b.folder.path() + "/"), bundle);
    EXPECT_EQ(bundle->bundlePath(), b.folder.path());
    EXPECT_EQ(bundle->bundleIdentifier(), "com.example.kit");
    EXPECT_EQ(bundle->objectForInfoDictionaryKey("CFBundleVersion"), Value(7));
    EXPECT_EQ(bundle->developmentRegion(), "en");
    EXPECT_EQ(Value(bundle).description(), "NSBundle <" + b.folder.path() + "> (loaded)");
    EXPECT_EQ(bundle->localizations(),
              (std::vector<std::string>{"Base", "de", "en", "fr", "pt-BR", "zh-Hans", "zh_TW"}));

    krcommon::test::writeBytes(b.folder / "Base.lproj/picture.png", "png");
    krcommon::test::writeBytes(b.folder / "de.lproj/picture.png", "png");
    Bundle::setPreferredLanguages({"de"});
    EXPECT_EQ(bundle->pathForResource("picture", "png"), b.folder / "de.lproj/picture.png");
    Bundle::setPreferredLanguages({"en"});
    EXPECT_EQ(bundle->pathForResource("picture", "png"), b.folder / "Base.lproj/picture.png");
    EXPECT_EQ(bundle->pathForResource("Info", "plist"), b.folder / "Info.plist");
    EXPECT_EQ(bundle->pathForResource("absent", "png"), std::nullopt);
    EXPECT_EQ(bundle->pathForResource("de", "lproj"), std::nullopt) << "folders are not resources";

    const auto main = Bundle::mainBundle();  // the executable's folder, with the host's info dictionary
    EXPECT_EQ(main->bundlePath(), std::filesystem::canonical("/proc/self/exe").parent_path().string());
    Bundle::setMainInfoDictionary(Dictionary{{"CFBundleIdentifier", 42}, {"CFBundleDevelopmentRegion", "de"}});
    EXPECT_EQ(main->bundleIdentifier(), std::nullopt) << "a non-string identifier is no identifier";
    EXPECT_EQ(main->developmentRegion(), "de");
}

}  // namespace

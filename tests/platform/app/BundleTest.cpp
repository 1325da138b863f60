#include <krcommon/platform/app/Bundle.h>
#include <krcommon/platform/io/PropertyList.h>

#include "platform/app/BundleTestSupport.h"
#include "platform/io/TempFolder.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

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

struct TagRow {
    const char* locale;
    std::optional<std::string> tag;
};

class BundleLanguageTag : public ::testing::TestWithParam<TagRow> {};

TEST_P(BundleLanguageTag, MapsLocaleNamesToTags) {
    EXPECT_EQ(Bundle::languageTag(GetParam().locale), GetParam().tag) << GetParam().locale;
}

INSTANTIATE_TEST_SUITE_P(
    Locales, BundleLanguageTag,
    ::testing::Values(TagRow{"zh_CN.UTF-8", "zh-Hans"}, TagRow{"zh_SG", "zh-Hans"}, TagRow{"zh", "zh-Hans"},
                      TagRow{"zh_TW.Big5", "zh-Hant"}, TagRow{"zh_HK.UTF-8", "zh-Hant"}, TagRow{"zh_MO", "zh-Hant"},
                      TagRow{"zh-Hant-HK", "zh-Hant"}, TagRow{"zh-hans", "zh-Hans"}, TagRow{"en_GB.UTF-8", "en-GB"},
                      TagRow{"de_DE@euro", "de-DE"}, TagRow{"pt-br", "pt-BR"}, TagRow{"sr_Latn_RS", "sr-Latn-RS"},
                      TagRow{"EN", "en"}, TagRow{"C", std::nullopt}, TagRow{"C.UTF-8", std::nullopt},
                      TagRow{"POSIX", std::nullopt}, TagRow{"", std::nullopt}, TagRow{".UTF-8", std::nullopt}));

TEST_F(BundleTest, PreferredLanguagesComeFromTheHostAheadOfTheEnvironment) {
    ScopedEnv language("LANGUAGE", "fr_FR:de:C");
    ScopedEnv all("LC_ALL", nullptr);
    ScopedEnv messages("LC_MESSAGES", nullptr);
    ScopedEnv lang("LANG", "zh_TW.UTF-8");
    EXPECT_EQ(Bundle::preferredLanguages(), (std::vector<std::string>{"fr-FR", "de", "zh-Hant"}));
    {
        ScopedEnv messagesSet("LC_MESSAGES", "ja_JP.UTF-8");
        EXPECT_EQ(Bundle::preferredLanguages(), (std::vector<std::string>{"fr-FR", "de", "ja-JP"}));
    }
    Bundle::setPreferredLanguages({"zh_CN", "zh-Hans", "en"});
    EXPECT_EQ(Bundle::preferredLanguages(), (std::vector<std::string>{"zh-Hans", "en"}));
    Bundle::setPreferredLanguages({});
    EXPECT_EQ(Bundle::preferredLanguages().front(), "fr-FR");
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
        if (developmentRegion) {
            auto plist = krcommon::platform::PropertyList::writeXML(
                Value(Dictionary{{"CFBundleDevelopmentRegion", developmentRegion}}));
            krcommon::test::writeBytes(folder / "Info.plist", *plist);
        }
        bundle = Bundle::bundleWithPath(folder.path());
    }
};

struct ChoiceRow {
    std::vector<std::string> preferred;
    const char* developmentRegion;
    const char* localization;  // chosen folder
    const char* errorsFrom;    // where the "Errors" table is read from
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
    ::testing::Values(ChoiceRow{{"de_DE.UTF-8"}, nullptr, "de", "de"},          // base language of a regional tag
                      ChoiceRow{{"zh_CN.UTF-8"}, nullptr, "zh-Hans", "zh-Hans"},  // script-named folder
                      ChoiceRow{{"zh_TW.UTF-8"}, nullptr, "zh_TW", "zh_TW"},      // legacy underscore folder
                      ChoiceRow{{"pt_BR"}, nullptr, "pt-BR", "pt-BR"},
                      ChoiceRow{{"ja", "DE"}, nullptr, "de", "de"},  // first one the bundle has, any case
                      ChoiceRow{{"ja"}, nullptr, "en", "en"},        // none: the default development region
                      ChoiceRow{{"ja"}, "de", "de", "de"},           // none: the bundle's development region
                      ChoiceRow{{"ja"}, "it", "it", "where"},  // a region without a folder: no table, the key
                      ChoiceRow{{"fr"}, "de", "fr", "de"}    // chosen folder lacks the table: development region's
                      ));

TEST_F(BundleTest, TablesFallBackToBaseThenTheTopFolderAndMissingKeysAnswerTheKeyOrValue) {
    LocalizedBundle b;
    Bundle::setPreferredLanguages({"de"});
    struct Row {
        const char* key;
        std::optional<std::string> value;
        std::optional<std::string> table;
        const char* expected;
    };
    const Row rows[] = {
        {"where", std::nullopt, "BaseOnly", "Base"},
        {"where", std::nullopt, "TopOnly", "top"},
        {"where", std::nullopt, "Errors", "de"},
        {"missing", std::nullopt, "Errors", "missing"},
        {"missing", "", "Errors", "missing"},
        {"missing", "fallback", "Errors", "fallback"},
        {"where", "fallback", "NoSuchTable", "fallback"},
        {"where", std::nullopt, "NoSuchTable", "where"},
        {"where", std::nullopt, std::nullopt, "where"},  // "Localizable" is absent
    };
    for (const auto& row : rows)
        EXPECT_EQ(b.bundle->localizedStringForKey(row.key, row.value, row.table), row.expected)
            << row.key << " in " << row.table.value_or("(default)");

    LocalizedBundle withDefault;
    writeTable(withDefault.folder.path(), "de", "Localizable", {{"where", "default table"}});
    EXPECT_EQ(withDefault.bundle->localizedStringForKey("where", std::nullopt, std::nullopt), "default table");
    EXPECT_EQ(withDefault.bundle->localizedStringForKey("where", std::nullopt, ""), "default table");
}

TEST_F(BundleTest, AnUnreadableTableIsSkippedForTheNextInTheChain) {
    TempFolder folder;
    krcommon::test::writeBytes(folder / "de.lproj/T.strings", "\"broken\" = ");
    writeTable(folder.path(), "en", "T", {{"k", "english"}});
    Bundle::setPreferredLanguages({"de"});
    EXPECT_EQ(Bundle::bundleWithPath(folder.path())->localizedStringForKey("k", std::nullopt, "T"), "english");
}

TEST_F(BundleTest, BundlesAreKeptPerFolderAndReadTheirInfoPlist) {
    TempFolder folder;
    EXPECT_EQ(Bundle::bundleWithPath(folder / "absent"), nullptr);
    krcommon::test::writeBytes(folder / "file", "x");
    EXPECT_EQ(Bundle::bundleWithPath(folder / "file"), nullptr);
    EXPECT_EQ(Bundle::bundleWithPath(""), nullptr);

    // A binary Info.plist, as build tools write it.
    plist_t info = plist_new_dict();
    plist_dict_set_item(info, "CFBundleIdentifier", plist_new_string("com.example.kit"));
    plist_dict_set_item(info, "CFBundleVersion", plist_new_uint(7));
    char* bytes = nullptr;
    std::uint32_t length = 0;
    plist_to_bin(info, &bytes, &length);
    krcommon::test::writeBytes(folder / "Info.plist", std::string(bytes, length));
    plist_to_bin_free(bytes);
    plist_free(info);

    auto bundle = Bundle::bundleWithPath(folder.path());
    ASSERT_NE(bundle, nullptr);
    EXPECT_EQ(Bundle::bundleWithPath(folder.path() + "/"), bundle);
    EXPECT_EQ(Bundle::bundleWithPath(folder.path() + "/./x/.."), bundle);
    EXPECT_EQ(bundle->bundlePath(), folder.path());
    EXPECT_EQ(bundle->bundleIdentifier(), "com.example.kit");
    EXPECT_EQ(bundle->objectForInfoDictionaryKey("CFBundleVersion"), Value(7));
    EXPECT_TRUE(bundle->objectForInfoDictionaryKey("Absent").isNil());
    EXPECT_EQ(bundle->developmentRegion(), "en");
    EXPECT_EQ(bundle->description(), "NSBundle <" + folder.path() + "> (loaded)");
    EXPECT_EQ(Value(bundle).description(), bundle->description());
}

TEST_F(BundleTest, MainBundleIsTheExecutableFolderWithTheHostsInfoDictionary) {
    auto main = Bundle::mainBundle();
    EXPECT_EQ(main, Bundle::mainBundle());
    EXPECT_EQ(main->bundlePath(), std::filesystem::canonical("/proc/self/exe").parent_path().string());
    EXPECT_EQ(Bundle::bundleWithPath(main->bundlePath()), main);

    Bundle::setMainInfoDictionary(Dictionary{{"CFBundleIdentifier", "com.example.host"},
                                             {"CFBundleDevelopmentRegion", "de"}});
    EXPECT_EQ(main->bundleIdentifier(), "com.example.host");
    EXPECT_EQ(main->developmentRegion(), "de");
    Bundle::setMainInfoDictionary(Dictionary{{"CFBundleIdentifier", 42}});
    EXPECT_EQ(main->bundleIdentifier(), std::nullopt) << "a non-string identifier is no identifier";
}

TEST_F(BundleTest, PathForResourceFollowsTheLookupChain) {
    LocalizedBundle b;
    krcommon::test::writeBytes(b.folder / "Base.lproj/picture.png", "png");
    krcommon::test::writeBytes(b.folder / "de.lproj/picture.png", "png");
    krcommon::test::writeBytes(b.folder / "README", "top");
    Bundle::setPreferredLanguages({"de"});
    EXPECT_EQ(b.bundle->pathForResource("picture", "png"), b.folder / "de.lproj/picture.png");
    Bundle::setPreferredLanguages({"en"});
    EXPECT_EQ(b.bundle->pathForResource("picture", "png"), b.folder / "Base.lproj/picture.png");
    EXPECT_EQ(b.bundle->pathForResource("README", ""), b.folder / "README");
    EXPECT_EQ(b.bundle->pathForResource("absent", "png"), std::nullopt);
    EXPECT_EQ(b.bundle->pathForResource("de", "lproj"), std::nullopt) << "folders are not resources";
    EXPECT_EQ(b.bundle->localizations(),
              (std::vector<std::string>{"Base", "de", "en", "fr", "pt-BR", "zh-Hans", "zh_TW"}));
}

TEST_F(BundleTest, ConcurrentLookupsAgree) {
    LocalizedBundle b;
    Bundle::setPreferredLanguages({"zh-Hans"});
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 200; ++i) {
                if (b.bundle->localizedStringForKey("where", std::nullopt, "Errors") != "zh-Hans") ++wrong;
                if (b.bundle->localizedStringForKey("where", std::nullopt, "BaseOnly") != "Base") ++wrong;
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(wrong.load(), 0);
}

}  // namespace

#include <krcommon/config/KRAppInfos.h>
#include <krcommon/platform/app/Bundle.h>
#include <krcommon/platform/app/Device.h>

#include "platform/security/OpenSSLTool.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <regex>

using krcommon::KRAppInfos;
using krcommon::platform::Bundle;
using krcommon::platform::Device;
using krcommon::platform::Dictionary;

namespace {

class KRAppInfosTest : public ::testing::Test {
protected:
    ~KRAppInfosTest() override { Bundle::setMainInfoDictionary(std::nullopt); }
};

TEST_F(KRAppInfosTest, FillsFromTheMainBundleAndTheDevice) {
    Bundle::setMainInfoDictionary(
        Dictionary{{"CFBundleIdentifier", "com.example.app"}, {"CFBundleDisplayName", "Example App"}});
    const KRAppInfos infos;
    const auto& device = Device::currentDevice();
    EXPECT_EQ(infos.applicationBundleId(), "com.example.app");
    EXPECT_EQ(infos.iOSPrefixApplicationBundleId(), "IOS-com.example.app");
    EXPECT_EQ(infos.dislayName(), "Example App");
    EXPECT_EQ(infos.deviceName(), device.name());
    EXPECT_EQ(infos.deviceModel(), device.model());
    EXPECT_EQ(infos.osVersion(), device.systemName() + device.systemVersion());
    EXPECT_EQ(infos.vendorUUID(), device.identifierForVendor("com.example.app"));
    const std::string uuid = infos.vendorUUID().value_or("");
    EXPECT_EQ(infos.md5VendorUUID(), krcommon::test::OpenSSLTool().digest("md5", {uuid.begin(), uuid.end()}));
    EXPECT_EQ(infos.peerID(), "iOS");
    EXPECT_EQ(infos.platformVersion(), "11");
    EXPECT_EQ(infos.customAppName(), "");
    EXPECT_EQ(infos.replaceBundleName(), std::nullopt);

    // Values are read once: a later change of the bundle does not show.
    Bundle::setMainInfoDictionary(Dictionary{{"CFBundleIdentifier", "com.example.other"}});
    EXPECT_EQ(infos.applicationBundleId(), "com.example.app");
}

TEST_F(KRAppInfosTest, ABundleWithoutIdentifierOrDisplayNameLeavesThemAbsent) {
    Bundle::setMainInfoDictionary(Dictionary{});
    const KRAppInfos infos;
    EXPECT_EQ(infos.applicationBundleId(), std::nullopt);
    EXPECT_EQ(infos.iOSPrefixApplicationBundleId(), "IOS-(null)");
    EXPECT_EQ(infos.dislayName(), std::nullopt);
    EXPECT_NE(infos.debugDescription().find("dislayName = nil;"), std::string::npos) << infos.debugDescription();
}

struct SubstituteRow {
    const char* name;
    std::function<void(KRAppInfos&)> act;
    std::optional<std::string> bundleId, prefixed, replaceBundleName;
    std::string customAppName;
};

class KRAppInfosSubstitute : public KRAppInfosTest, public ::testing::WithParamInterface<SubstituteRow> {};

TEST_P(KRAppInfosSubstitute, FeedsTheThreeGettersAndLeavesTheStoredValues) {
    Bundle::setMainInfoDictionary(Dictionary{{"CFBundleIdentifier", "com.example.app"}});
    KRAppInfos infos;
    GetParam().act(infos);
    EXPECT_EQ(infos.applicationBundleId(), GetParam().bundleId);
    EXPECT_EQ(infos.iOSPrefixApplicationBundleId(), GetParam().prefixed);
    EXPECT_EQ(infos.replaceBundleName(), GetParam().replaceBundleName);
    EXPECT_EQ(infos.customAppName(), GetParam().customAppName);
}

const std::optional<std::string> kId = "com.example.app", kPrefixed = "IOS-com.example.app";

INSTANTIATE_TEST_SUITE_P(
    Rows, KRAppInfosSubstitute,
    ::testing::Values(
        SubstituteRow{"None", [](KRAppInfos&) {}, kId, kPrefixed, std::nullopt, ""},
        SubstituteRow{"Reset", [](KRAppInfos& i) { i.resetBundleName("com.sub.app"); }, "com.sub.app",
                      "IOS-com.sub.app", "com.sub.app", "com.sub.app"},
        SubstituteRow{"ResetEmptyKeepsThePrevious",
                      [](KRAppInfos& i) {
                          i.resetBundleName("com.sub.app");
                          i.resetBundleName("");
                          i.resetBundleName(std::nullopt);
                      },
                      "com.sub.app", "IOS-com.sub.app", "com.sub.app", "com.sub.app"},
        SubstituteRow{"ResetEmptyWithoutPrevious", [](KRAppInfos& i) { i.resetBundleName(""); }, kId, kPrefixed,
                      std::nullopt, ""},
        SubstituteRow{"ClearedWithTheSetter",
                      [](KRAppInfos& i) {
                          i.resetBundleName("com.sub.app");
                          i.setReplaceBundleName(std::nullopt);
                      },
                      kId, kPrefixed, std::nullopt, ""},
        SubstituteRow{"EmptyThroughTheSetterCounts", [](KRAppInfos& i) { i.setReplaceBundleName(""); }, "", "IOS-",
                      "", ""},
        SubstituteRow{"CustomAppNameIsNeverAnswered", [](KRAppInfos& i) { i.setCustomAppName("My Name"); }, kId,
                      kPrefixed, std::nullopt, ""},
        SubstituteRow{"StoredValuesShowOnlyWithoutSubstitute",
                      [](KRAppInfos& i) {
                          i.setApplicationBundleId("stored.id");
                          i.setIOSPrefixApplicationBundleId("IOS-stored");
                          i.resetBundleName("com.sub.app");
                      },
                      "com.sub.app", "IOS-com.sub.app", "com.sub.app", "com.sub.app"},
        SubstituteRow{"StoredValuesWithoutSubstitute",
                      [](KRAppInfos& i) {
                          i.setApplicationBundleId("stored.id");
                          i.setIOSPrefixApplicationBundleId("IOS-stored");
                      },
                      "stored.id", "IOS-stored", std::nullopt, ""}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(KRAppInfosTest, DebugDescriptionListsEveryPropertyThroughItsGetter) {
    KRAppInfos infos;
    infos.setApplicationBundleId("com.example.app");
    infos.setIOSPrefixApplicationBundleId("IOS-com.example.app");
    infos.setDislayName(std::nullopt);
    infos.setDeviceName("Anna's laptop");
    infos.setDeviceModel("x86_64");
    infos.setOsVersion("Debian GNU/Linux12");
    infos.setVendorUUID(std::nullopt);
    infos.setMd5VendorUUID("d41d8cd98f00b204e9800998ecf8427e");
    infos.setCustomAppName("ignored");
    infos.resetBundleName("com.sub.app");

    const std::string text = infos.debugDescription();
    std::smatch match;
    ASSERT_TRUE(std::regex_search(text, match, std::regex("^<KRAppInfos: (0x[0-9a-f]+)> -- "))) << text;
    EXPECT_EQ(std::stoull(match[1].str(), nullptr, 16), reinterpret_cast<std::uintptr_t>(&infos));
    EXPECT_EQ(match.suffix().str(),
              "{\n"
              "    applicationBundleId = com.sub.app;\n"
              "    customAppName = com.sub.app;\n"
              "    deviceModel = x86_64;\n"
              "    deviceName = \"Anna's laptop\";\n"
              "    dislayName = nil;\n"
              "    iOSPrefixApplicationBundleId = IOS-com.sub.app;\n"
              "    md5VendorUUID = d41d8cd98f00b204e9800998ecf8427e;\n"
              "    osVersion = \"Debian GNU/Linux12\";\n"
              "    peerID = iOS;\n"
              "    platformVersion = 11;\n"
              "    replaceBundleName = com.sub.app;\n"
              "    vendorUUID = nil;\n"
              "}");
}

TEST_F(KRAppInfosTest, EveryShareLogsTheDescription) {
    krcommon::test::LogCapture capture;
    KRAppInfos& first = KRAppInfos::share();
    KRAppInfos& second = KRAppInfos::share();
    EXPECT_EQ(&first, &second);
    EXPECT_EQ(capture.lines(), (std::vector<std::string>{first.debugDescription(), first.debugDescription()}));

    // A change made through a setter shows in the very next line.
    const auto before = first.deviceName();
    first.setDeviceName("renamed-for-the-test");
    KRAppInfos::share();
    first.resetBundleName("com.renamed.app");
    KRAppInfos::share();
    first.setDeviceName(before);
    first.setReplaceBundleName(std::nullopt);
    const auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_NE(lines[2].find("deviceName = renamed-for-the-test;"), std::string::npos) << lines[2];
    EXPECT_NE(lines[3].find("replaceBundleName = com.renamed.app;"), std::string::npos) << lines[3];
}

TEST(KRAppInfosUrlWith, JoinsWithoutSeparator) {
    struct Row {
        std::optional<std::string_view> first, second;
        const char* expected;
    };
    for (const auto& row : {Row{"https://a.test", "/path", "https://a.test/path"}, Row{"https://a.test/", "", "https://a.test/"},
                            Row{"", "x", "x"}, Row{"a", std::nullopt, "a(null)"}, Row{std::nullopt, "/p", "(null)/p"}})
        EXPECT_EQ(krcommon::urlWith(row.first, row.second), row.expected);
}

}  // namespace

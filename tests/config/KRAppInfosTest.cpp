// The app and device record: what it reads once, the substitute name, the description logged by share().
#include <krcommon/config/KRAppInfos.h>
#include <krcommon/platform/app/Bundle.h>
#include <krcommon/platform/app/Device.h>
#include <krcommon/util/EncryptCommon.h>

#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include <functional>
#include <regex>

using krcommon::KRAppInfos;
using namespace krcommon::platform;

namespace {

class KRAppInfosTest : public ::testing::Test {
protected:
    KRAppInfosTest() {
        Bundle::setMainInfoDictionary(Dictionary{{"CFBundleIdentifier", "app"}, {"CFBundleDisplayName", "E"}});
    }
    ~KRAppInfosTest() override { Bundle::setMainInfoDictionary(std::nullopt); }
};

TEST_F(KRAppInfosTest, ReadsTheBundleAndTheDeviceOnce) {
    const KRAppInfos infos;
    const auto& device = Device::currentDevice();
    EXPECT_EQ(infos.iOSPrefixApplicationBundleId().value_or("") + infos.dislayName().value_or(""), "IOS-appE");
    EXPECT_EQ(infos.osVersion(), device.systemName() + device.systemVersion());
    EXPECT_EQ(infos.vendorUUID(), device.identifierForVendor("app"));
    EXPECT_EQ(infos.md5VendorUUID(), krcommon::EncryptCommon::md5Str(infos.vendorUUID()));
    Bundle::setMainInfoDictionary(Dictionary{});  // read once: a later change does not show
    EXPECT_EQ(infos.applicationBundleId(), "app");
    const KRAppInfos bare;
    EXPECT_EQ(bare.applicationBundleId().value_or("-") + *bare.iOSPrefixApplicationBundleId(), "-IOS-(null)");
}

TEST_F(KRAppInfosTest, ASubstituteNameFeedsThreeGettersAndLeavesTheStoredValues) {
    using Act = std::function<void(KRAppInfos&)>;
    const Act stored = [](KRAppInfos& i) { i.setApplicationBundleId("i"), i.setIOSPrefixApplicationBundleId("IOS-x"); };
    const Act reset = [](KRAppInfos& i) { i.resetBundleName("sub"); };
    const struct { Act act; std::string bundleId, prefixed, custom; } rows[] = {
        {reset, "sub", "IOS-sub", "sub"},
        {[&](KRAppInfos& i) { reset(i), i.resetBundleName(""), i.resetBundleName({}); }, "sub", "IOS-sub", "sub"},
        {[&](KRAppInfos& i) { reset(i), i.setReplaceBundleName({}); }, "app", "IOS-app", ""},
        {[](KRAppInfos& i) { i.setReplaceBundleName(""); }, "", "IOS-", ""},
        {[](KRAppInfos& i) { i.resetBundleName(""), i.setCustomAppName("Mine"); }, "app", "IOS-app", ""},
        {[&](KRAppInfos& i) { stored(i), reset(i); }, "sub", "IOS-sub", "sub"}, {stored, "i", "IOS-x", ""}};
    for (const auto& row : rows) {
        KRAppInfos infos;
        row.act(infos);
        const std::string got = *infos.applicationBundleId() + "|" + *infos.iOSPrefixApplicationBundleId();
        EXPECT_EQ(got + "|" + infos.customAppName(), row.bundleId + "|" + row.prefixed + "|" + row.custom);
    }
}

TEST_F(KRAppInfosTest, DescriptionListsEveryPropertyThroughItsGetterAndIsLoggedAtEveryShare) {
    KRAppInfos infos;
    infos.setDeviceName("Anna's laptop");
    infos.setDeviceModel("x86_64");
    infos.setOsVersion("Debian GNU/Linux12");
    infos.setVendorUUID(std::nullopt);
    infos.setMd5VendorUUID("d41d8cd98f00b204e9800998ecf8427e");
    infos.resetBundleName("sub");
    const std::string text = infos.debugDescription();
    std::smatch match;
    ASSERT_TRUE(std::regex_search(text, match, std::regex("^<KRAppInfos: (0x[0-9a-f]+)> -- "))) << text;
    EXPECT_EQ(std::stoull(match[1].str(), nullptr, 16), reinterpret_cast<std::uintptr_t>(&infos));
    EXPECT_EQ(match.suffix().str(),
              "{\n    applicationBundleId = sub;\n    customAppName = sub;\n    deviceModel = x86_64;\n"
              "    deviceName = \"Anna's laptop\";\n    dislayName = E;\n    iOSPrefixApplicationBundleId = IOS-sub;\n"
              "    md5VendorUUID = d41d8cd98f00b204e9800998ecf8427e;\n    osVersion = \"Debian GNU/Linux12\";\n"
              "    peerID = iOS;\n    platformVersion = 11;\n    replaceBundleName = sub;\n    vendorUUID = nil;\n}");

    krcommon::test::LogCapture capture;
    KRAppInfos& shared = KRAppInfos::share();
    EXPECT_EQ(&KRAppInfos::share(), &shared);
    const auto before = shared.deviceName();
    shared.setDeviceName("renamed");  // shows in the very next line
    KRAppInfos::share();
    shared.setDeviceName(before);
    const auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0], lines[1]);
    EXPECT_NE(lines[2].find("deviceName = renamed;"), std::string::npos) << lines[2];
}

TEST(KRAppInfosUrlWith, JoinsWithoutSeparator) {
    EXPECT_EQ(krcommon::urlWith("https://a.test", "/p") + krcommon::urlWith("x/", ""), "https://a.test/px/");
    EXPECT_EQ(krcommon::urlWith("a", std::nullopt) + krcommon::urlWith(std::nullopt, "b"), "a(null)(null)b");
}

}  // namespace

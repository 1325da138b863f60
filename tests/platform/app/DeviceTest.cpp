#include <krcommon/platform/app/Bundle.h>
#include <krcommon/platform/app/Device.h>

#include "platform/app/BundleTestSupport.h"
#include "platform/io/TempFolder.h"

#include <gtest/gtest.h>

#include <sys/utsname.h>
#include <unistd.h>

#include <cstdio>
#include <regex>

using krcommon::platform::Device;
using krcommon::test::TempFolder;
using krcommon::test::writeBytes;

namespace {

constexpr const char* kMachineId = "0123456789abcdef0123456789abcdef";

std::string run(const std::string& command) {
    std::string out;
    if (FILE* pipe = ::popen(command.c_str(), "r")) {
        char buffer[256];
        while (std::fgets(buffer, sizeof buffer, pipe)) out += buffer;
        ::pclose(pipe);
    }
    return out;
}

std::string unameField(char (utsname::*field)[65]) {
    utsname names{};
    ::uname(&names);
    return names.*field;
}

std::string hostName() {
    char host[256] = {};
    ::gethostname(host, sizeof host - 1);
    return host;
}

TEST(Device, ReadsNameAndSystemFromTheRootsFiles) {
    struct Row {
        const char* name;
        std::vector<std::pair<std::string, std::string>> files;
        std::string deviceName, systemName, systemVersion;
    };
    const Row rows[] = {
        {"Quoted",
         {{"etc/os-release", "PRETTY_NAME=\"Debian GNU/Linux 12\"\nNAME=\"Debian GNU/Linux\"\nVERSION_ID=\"12\"\n"},
          {"etc/machine-info", "ICON_NAME=computer\nPRETTY_HOSTNAME=\"Anna's \\\"Laptop\\\"\"\n"}},
         "Anna's \"Laptop\"", "Debian GNU/Linux", "12"},
        {"UnquotedAndSingleQuoted",
         {{"etc/os-release", "NAME=Fedora\nVERSION_ID='39'\n"}, {"etc/machine-info", "PRETTY_HOSTNAME=desk\n"}},
         "desk", "Fedora", "39"},
        {"VendorCopyWhenEtcHasNone",
         {{"usr/lib/os-release", "NAME=\"Arch Linux\"\nBUILD_ID=rolling\n"}},
         hostName(), "Arch Linux", unameField(&utsname::release)},
        {"EtcDecidesEvenWithoutTheKey",
         {{"etc/os-release", "ID=custom\n"}, {"usr/lib/os-release", "NAME=Other\nVERSION_ID=1\n"}},
         hostName(), "Linux", unameField(&utsname::release)},
        {"NothingAtAll", {}, hostName(), "Linux", unameField(&utsname::release)},
        {"EmptyPrettyHostName", {{"etc/machine-info", "PRETTY_HOSTNAME=\n"}}, hostName(), "Linux",
         unameField(&utsname::release)},
    };
    for (const auto& row : rows) {
        TempFolder root;
        for (const auto& [file, text] : row.files) writeBytes(root / file, text);
        const Device device(root.path());
        EXPECT_EQ(device.name(), row.deviceName) << row.name;
        EXPECT_EQ(device.systemName(), row.systemName) << row.name;
        EXPECT_EQ(device.systemVersion(), row.systemVersion) << row.name;
        EXPECT_EQ(device.model(), unameField(&utsname::machine)) << row.name;
    }
}

TEST(Device, VendorIdentifierIsAnHmacOfTheVendorKeyedByTheMachineId) {
    TempFolder root;
    writeBytes(root / "etc/machine-id", std::string(kMachineId) + "\n");
    const Device device(root.path());
    const auto id = device.identifierForVendor("com.example.app");
    ASSERT_TRUE(id.has_value());
    EXPECT_TRUE(std::regex_match(*id, std::regex("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}")))
        << *id;

    // The same derivation with the OpenSSL command line: HMAC-SHA256 keyed with
    // the 16 machine-id bytes over the label and the vendor, version and variant set.
    const std::string mac = run(std::string("printf 'krcommon.identifierForVendor\\ncom.example' | "
                                            "openssl dgst -sha256 -mac HMAC -macopt hexkey:") +
                                kMachineId + " -r");
    ASSERT_GE(mac.size(), 32u) << "openssl is needed for this test";
    std::string hex = mac.substr(0, 32);
    for (auto& c : hex) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    hex[12] = '4';
    static constexpr char digits[] = "0123456789ABCDEF";
    const int variant = std::stoi(hex.substr(16, 1), nullptr, 16);
    hex[16] = digits[(variant & 0x3) | 0x8];
    const std::string expected =
        hex.substr(0, 8) + "-" + hex.substr(8, 4) + "-" + hex.substr(12, 4) + "-" + hex.substr(16, 4) + "-" +
        hex.substr(20, 12);
    EXPECT_EQ(*id, expected);
    EXPECT_EQ(id->find("0123456789"), std::string::npos) << "the machine id does not show through";
}

TEST(Device, VendorIdentifierIsStablePerVendorAndMachine) {
    TempFolder a, b, dbusOnly, none, invalid, zero;
    writeBytes(a / "etc/machine-id", kMachineId);
    writeBytes(b / "etc/machine-id", "fedcba9876543210fedcba9876543210\n");
    writeBytes(dbusOnly / "var/lib/dbus/machine-id", kMachineId);
    writeBytes(invalid / "etc/machine-id", "uninitialized\n");
    writeBytes(zero / "etc/machine-id", std::string(32, '0'));

    const Device onA(a.path());
    const auto app = onA.identifierForVendor("com.example.app");
    EXPECT_EQ(Device(a.path()).identifierForVendor("com.example.app"), app) << "derived afresh, same answer";
    EXPECT_EQ(onA.identifierForVendor("com.example.other"), app) << "same vendor";
    EXPECT_NE(onA.identifierForVendor("org.example.app"), app) << "another vendor";
    EXPECT_NE(Device(b.path()).identifierForVendor("com.example.app"), app) << "another machine";
    EXPECT_EQ(Device(dbusOnly.path()).identifierForVendor("com.example.app"), app) << "D-Bus copy of the id";
    EXPECT_EQ(onA.identifierForVendor("solo"), onA.identifierForVendor("solo.x")) << "no dot: the whole identifier";
    EXPECT_EQ(onA.identifierForVendor(std::nullopt), onA.identifierForVendor("")) << "no identifier: empty vendor";
    EXPECT_EQ(Device(none.path()).identifierForVendor("com.example.app"), std::nullopt);
    EXPECT_EQ(Device(invalid.path()).identifierForVendor("com.example.app"), std::nullopt);
    EXPECT_EQ(Device(zero.path()).identifierForVendor("com.example.app"), std::nullopt);

    // Nothing was written next to the machine id.
    std::size_t files = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::recursive_directory_iterator(a.path())) ++files;
    EXPECT_EQ(files, 2u);  // etc and etc/machine-id

    struct VendorRow {
        std::optional<std::string_view> identifier;
        const char* vendor;
    };
    for (const auto& row : {VendorRow{"com.example.app", "com.example"}, VendorRow{"a.b.c.d", "a.b.c"},
                            VendorRow{"solo", "solo"}, VendorRow{"", ""}, VendorRow{std::nullopt, ""}})
        EXPECT_EQ(Device::vendorOf(row.identifier), row.vendor);
}

TEST(Device, CurrentDeviceUsesTheMainBundlesVendor) {
    const auto& device = Device::currentDevice();
    EXPECT_EQ(&device, &Device::currentDevice());
    krcommon::platform::Bundle::setMainInfoDictionary(
        krcommon::platform::Dictionary{{"CFBundleIdentifier", "com.example.host"}});
    EXPECT_EQ(device.identifierForVendor(), device.identifierForVendor("com.example.host"));
    krcommon::platform::Bundle::setMainInfoDictionary(std::nullopt);
    if (device.identifierForVendor("x")) {
        EXPECT_NE(device.identifierForVendor("com.example.host"), device.identifierForVendor("org.example.host"));
    }
}

}  // namespace

#include <krcommon/platform/app/Device.h>

#include "platform/app/BundleTestSupport.h"
#include "platform/io/TempFolder.h"

#include <gtest/gtest.h>

#include <sys/utsname.h>
#include <unistd.h>

using krcommon::platform::Device;
using krcommon::test::TempFolder;
using krcommon::test::writeBytes;

namespace {

TEST(Device, ReadsNameAndSystemFromTheRootsFilesFallingBackToTheKernel) {
    utsname kernel{};
    ::uname(&kernel);
    char host[256] = {};
    ::gethostname(host, sizeof host - 1);
    const std::string release = kernel.release;
    const struct {
        const char* name;
        std::vector<std::pair<std::string, std::string>> files;
        std::string deviceName, systemName, systemVersion;
    } rows[] = {
        {"Quoted",
         {{"etc/os-release", "PRETTY_NAME=\"Debian GNU/Linux 12\"\nNAME=\"Debian GNU/Linux\"\nVERSION_ID=\"12\"\n"},
          {"etc/machine-info", "ICON_NAME=computer\nPRETTY_HOSTNAME=\"Anna's \\\"Laptop\\\"\" \t\r\n"}},
         "Anna's \"Laptop\"", "Debian GNU/Linux", "12"},
        {"UnquotedAndSingleQuoted",
         {{"etc/os-release", "NAME=Fedora\nVERSION_ID='39'\n"}, {"etc/machine-info", "PRETTY_HOSTNAME=desk\n"}},
         "desk", "Fedora", "39"},
        {"VendorCopyWhenEtcHasNone", {{"usr/lib/os-release", "NAME=\"Arch Linux\"\nBUILD_ID=rolling\n"}}, host,
         "Arch Linux", release},
        {"EtcDecidesEvenWithoutTheKey",
         {{"etc/os-release", "ID=custom\n"}, {"usr/lib/os-release", "NAME=Other\nVERSION_ID=1\n"}}, host, "Linux", release},
        {"NothingAtAll", {}, host, "Linux", release},
        {"EmptyPrettyHostName", {{"etc/machine-info", "PRETTY_HOSTNAME=\n"}}, host, "Linux", release},
    };
    for (const auto& row : rows) {
        TempFolder root;
        for (const auto& [file, text] : row.files) writeBytes(root / file, text);
        const Device device(root.path());
        EXPECT_EQ(device.name(), row.deviceName) << row.name;
        EXPECT_EQ(device.systemName(), row.systemName) << row.name;
        EXPECT_EQ(device.systemVersion(), row.systemVersion) << row.name;
        EXPECT_EQ(device.model(), kernel.machine) << row.name;
    }
}

// HMAC-SHA256 keyed with the 16 machine-id bytes over "krcommon.identifierForVendor\n" and the
// vendor (the bundle identifier up to its last dot), shaped as a version 4 UUID; never stored.
TEST(Device, VendorIdentifierIsAnHmacOfTheVendorKeyedByTheMachineId) {
    TempFolder a, b, dbusOnly, none, invalid, zero;
    writeBytes(a / "etc/machine-id", "0123456789abcdef0123456789abcdef\n");
    writeBytes(b / "etc/machine-id", "fedcba9876543210fedcba9876543210");
    writeBytes(dbusOnly / "var/lib/dbus/machine-id", "0123456789abcdef0123456789abcdef");
    writeBytes(invalid / "etc/machine-id", "uninitialized\n");
    writeBytes(zero / "etc/machine-id", std::string(32, '0'));
    const std::tuple<const TempFolder*, std::optional<std::string_view>, std::optional<std::string>> rows[] = {
        {&a, "com.example.app", "A5A391AA-D7EE-4096-AE66-1CD8B4105883"},
        {&a, "com.example.other", "A5A391AA-D7EE-4096-AE66-1CD8B4105883"},  // the same vendor
        {&a, "org.example.app", "7A5F03AF-2754-45E1-A7F4-785AA1A0150C"},
        {&a, "solo", "3C99F024-92CA-45AB-BE54-35CB907997E8"},  // no dot: the whole identifier
        {&a, "solo.x", "3C99F024-92CA-45AB-BE54-35CB907997E8"},
        {&a, "a.b.c.d", "B0236CB3-088F-4C4D-A2C2-41BCADCEBBA3"},
        {&a, std::nullopt, "F2FEBA57-51DF-4248-985A-B4353B8A628C"},  // no identifier: the empty vendor
        {&a, "", "F2FEBA57-51DF-4248-985A-B4353B8A628C"},
        {&b, "com.example.app", "73BFBDE8-59A4-4F16-AF34-EFE0769945FD"},
        {&dbusOnly, "com.example.app", "A5A391AA-D7EE-4096-AE66-1CD8B4105883"},  // D-Bus's copy of the id
        {&none, "com.example.app", std::nullopt}, {&invalid, "com.example.app", std::nullopt},
        {&zero, "com.example.app", std::nullopt}};
    for (const auto& [root, identifier, expected] : rows)
        EXPECT_EQ(Device(root->path()).identifierForVendor(identifier), expected) << identifier.value_or("(none)");
    std::size_t files = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::recursive_directory_iterator(a.path())) ++files;
    EXPECT_EQ(files, 2u);  // etc and etc/machine-id: nothing was written beside the id
}

}  // namespace

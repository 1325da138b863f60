#pragma once

// The device the process runs on, as the mobile platform describes it.
//
// - name: the user-visible name, the pretty host name (PRETTY_HOSTNAME of
//   /etc/machine-info) when one is set, else the host name.
// - systemName / systemVersion: NAME and VERSION_ID of os-release
//   (/etc/os-release, else /usr/lib/os-release); without them "Linux" and the
//   kernel release.
// - model: the `machine` field of uname(2), such as "x86_64" or "aarch64".
// - identifierForVendor: a UUID that is the same for every app of one vendor on
//   one machine and differs between vendors and machines. It is derived, never
//   stored: HMAC-SHA256 keyed with the machine id (/etc/machine-id, else
//   /var/lib/dbus/machine-id) over a fixed application label and the vendor,
//   cut to 128 bits and marked as a version 4 UUID, as systemd derives
//   application-specific machine ids, so the machine id itself cannot be
//   recovered from it. The vendor is the main bundle identifier without its
//   last dot-separated component ("com.example.app" gives "com.example"), or
//   the whole identifier when it has no dot, or "" without one. Absent when the
//   machine has no readable machine id.

#include <krcommon/platform/core/Export.h>

#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

namespace krcommon::platform {

class KRCOMMON_EXPORT Device {
public:
    /// The device as seen from the root folder "/".
    static const Device& currentDevice();

    /// A device whose files (etc/machine-info, etc/os-release, etc/machine-id,
    /// ...) are read under `rootFolder` instead of "/"; the host name and uname
    /// still come from the running kernel.
    explicit Device(std::string rootFolder);

    // Every value is read afresh on each call; none is ever absent.

    /// PRETTY_HOSTNAME of etc/machine-info when set and not empty, else the kernel's host name,
    /// else "localhost".
    [[nodiscard]] std::string name() const;
    /// NAME of the first os-release file that exists (etc/os-release, else usr/lib/os-release);
    /// "Linux" when that file has no NAME or neither file exists.
    [[nodiscard]] std::string systemName() const;
    /// VERSION_ID of that os-release file; the kernel release (uname) when it has none (rolling
    /// distributions have none) or neither file exists.
    [[nodiscard]] std::string systemVersion() const;
    /// The `machine` field of uname(2) ("x86_64", "aarch64"); "" should uname fail.
    [[nodiscard]] std::string model() const;

    /// The vendor identifier for the main bundle's vendor, in upper-case
    /// 8-4-4-4-12 form; nullopt without a machine id.
    [[nodiscard]] std::optional<std::string> identifierForVendor() const;

    /// The vendor identifier for the vendor of `bundleIdentifier`.
    [[nodiscard]] std::optional<std::string> identifierForVendor(std::optional<std::string_view> bundleIdentifier) const;

    /// The vendor part of a bundle identifier; see the file comment.
    [[nodiscard]] static std::string vendorOf(std::optional<std::string_view> bundleIdentifier);

private:
    [[nodiscard]] std::optional<std::string> fileValue(std::initializer_list<const char*> files,
                                                       std::string_view key) const;
    [[nodiscard]] std::optional<std::string> machineId() const;

    std::string root_;
};

}  // namespace krcommon::platform

#pragma once

// Who is calling: the host application's bundle identifier and display name,
// the device's name, model and system, and the vendor identifier with its MD5
// digest. Read once from the platform when the record is made. A host may
// substitute another bundle name, which `applicationBundleId`,
// `iOSPrefixApplicationBundleId` and `customAppName` then report instead.

#include <krcommon/platform/core/Value.h>

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace krcommon {

class KRCOMMON_EXPORT KRAppInfos {
public:
    using Text = std::optional<std::string>;

    /// The shared record, made on first use. Every call writes the record's
    /// `debugDescription` to the system log.
    static KRAppInfos& share();

    /// A record filled from the platform, in this order: the main bundle's
    /// "CFBundleIdentifier", "IOS-" + that identifier, "CFBundleDisplayName",
    /// the device name, the uname machine, system name and version glued
    /// together, the vendor identifier, its MD5 (computed even when absent),
    /// "iOS" and "11".
    KRAppInfos();
    KRAppInfos(const KRAppInfos&) = delete;
    KRAppInfos& operator=(const KRAppInfos&) = delete;

    /// The substitute bundle name when set, else the identifier read at init.
    [[nodiscard]] Text applicationBundleId() const;
    void setApplicationBundleId(Text value);

    /// "IOS-<substitute>" when a substitute is set (made afresh), else the
    /// prefixed identifier made at init.
    [[nodiscard]] Text iOSPrefixApplicationBundleId() const;
    void setIOSPrefixApplicationBundleId(Text value);

    /// The substitute bundle name when set, else "". The value given to
    /// `setCustomAppName` is kept but never answered here.
    [[nodiscard]] std::string customAppName() const;
    void setCustomAppName(Text value);

    /// Makes `name` the substitute bundle name when it is non-empty; an absent
    /// or empty name leaves the current substitute in place.
    void resetBundleName(std::optional<std::string_view> name);

    /// The substitute bundle name; `setReplaceBundleName(std::nullopt)` clears it.
    [[nodiscard]] Text replaceBundleName() const;
    void setReplaceBundleName(Text value);

    [[nodiscard]] Text dislayName() const;  ///< display name; absent when the bundle has none
    void setDislayName(Text value);
    [[nodiscard]] Text deviceName() const;  ///< user-visible device name
    void setDeviceName(Text value);
    [[nodiscard]] Text deviceModel() const;  ///< hardware identifier from uname, such as "x86_64"
    void setDeviceModel(Text value);
    [[nodiscard]] Text osVersion() const;  ///< system name immediately followed by its version
    void setOsVersion(Text value);
    [[nodiscard]] Text vendorUUID() const;  ///< vendor identifier; absent when the platform has none
    void setVendorUUID(Text value);
    [[nodiscard]] Text md5VendorUUID() const;  ///< lower-case hex MD5 of the vendor identifier
    void setMd5VendorUUID(Text value);
    [[nodiscard]] Text peerID() const;  ///< "iOS"
    void setPeerID(Text value);
    [[nodiscard]] Text platformVersion() const;  ///< "11"
    void setPlatformVersion(Text value);

    /// "<KRAppInfos: 0x...> -- {...}": every property by name, read through its
    /// getter, with "nil" for an absent value.
    [[nodiscard]] std::string debugDescription() const;

private:
    [[nodiscard]] std::string describe() const;

    mutable std::mutex mutex_;
    std::uint64_t version_ = 0;  // counts changes made through the setters
    mutable std::optional<std::string> description_;
    mutable std::uint64_t descriptionVersion_ = 0;
    Text applicationBundleId_;
    Text iOSPrefixApplicationBundleId_;
    Text dislayName_;
    Text deviceName_;
    Text deviceModel_;
    Text osVersion_;
    Text vendorUUID_;
    Text md5VendorUUID_;
    Text peerID_;
    Text platformVersion_;
    Text customAppName_;
    Text replaceBundleName_;
};

/// `first` immediately followed by `second`; an absent one prints as "(null)".
KRCOMMON_EXPORT std::string urlWith(std::optional<std::string_view> first, std::optional<std::string_view> second);

}  // namespace krcommon

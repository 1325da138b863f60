#include <krcommon/config/KRAppInfos.h>

#include <krcommon/platform/app/Bundle.h>
#include <krcommon/platform/app/Device.h>
#include <krcommon/platform/app/SystemLog.h>
#include <krcommon/platform/core/Format.h>
#include <krcommon/util/EncryptCommon.h>

namespace krcommon {

using platform::Value;
using Text = KRAppInfos::Text;

namespace {

Text infoString(const platform::Bundle& bundle, std::string_view key) {
    const Value value = bundle.objectForInfoDictionaryKey(key);
    if (value.isNil()) return std::nullopt;
    return value.description();
}

Text view(const std::optional<std::string_view>& text) {
    return text ? Text(std::string(*text)) : std::nullopt;
}

}  // namespace

KRAppInfos& KRAppInfos::share() {
    static KRAppInfos* const instance = new KRAppInfos;  // lives until the process ends
    platform::SystemLog::log("%@", instance->debugDescription());
    return *instance;
}

KRAppInfos::KRAppInfos() {
    const auto bundle = platform::Bundle::mainBundle();
    const auto& device = platform::Device::currentDevice();
    applicationBundleId_ = infoString(*bundle, "CFBundleIdentifier");
    iOSPrefixApplicationBundleId_ = platform::format("IOS-%@", applicationBundleId_);
    dislayName_ = infoString(*bundle, "CFBundleDisplayName");
    deviceName_ = device.name();
    deviceModel_ = device.model();
    osVersion_ = platform::format("%@%@", device.systemName(), device.systemVersion());
    vendorUUID_ = device.identifierForVendor(applicationBundleId_);
    md5VendorUUID_ = EncryptCommon::md5Str(vendorUUID_);
    peerID_ = "iOS";
    platformVersion_ = "11";
}

Text KRAppInfos::applicationBundleId() const {
    std::lock_guard lock(mutex_);
    return replaceBundleName_ ? replaceBundleName_ : applicationBundleId_;
}

Text KRAppInfos::iOSPrefixApplicationBundleId() const {
    std::lock_guard lock(mutex_);
    if (replaceBundleName_) return platform::format("IOS-%@", replaceBundleName_);
    return iOSPrefixApplicationBundleId_;
}

std::string KRAppInfos::customAppName() const {
    std::lock_guard lock(mutex_);
    return replaceBundleName_.value_or(std::string());
}

void KRAppInfos::resetBundleName(std::optional<std::string_view> name) {
    if (!name || name->empty()) return;
    std::lock_guard lock(mutex_);
    replaceBundleName_ = std::string(*name);
    ++version_;
}

#define KR_ACCESSORS(name, Capitalised)                      \
    void KRAppInfos::set##Capitalised(Text value) {          \
        std::lock_guard lock(mutex_);                        \
        name##_ = std::move(value);                          \
        ++version_;                                          \
    }
KR_ACCESSORS(applicationBundleId, ApplicationBundleId)
KR_ACCESSORS(iOSPrefixApplicationBundleId, IOSPrefixApplicationBundleId)
KR_ACCESSORS(customAppName, CustomAppName)
KR_ACCESSORS(replaceBundleName, ReplaceBundleName)
KR_ACCESSORS(dislayName, DislayName)
KR_ACCESSORS(deviceName, DeviceName)
KR_ACCESSORS(deviceModel, DeviceModel)
KR_ACCESSORS(osVersion, OsVersion)
KR_ACCESSORS(vendorUUID, VendorUUID)
KR_ACCESSORS(md5VendorUUID, Md5VendorUUID)
KR_ACCESSORS(peerID, PeerID)
KR_ACCESSORS(platformVersion, PlatformVersion)
#undef KR_ACCESSORS

#define KR_GETTER(name)                  \
    Text KRAppInfos::name() const {      \
        std::lock_guard lock(mutex_);    \
        return name##_;                  \
    }
KR_GETTER(replaceBundleName)
KR_GETTER(dislayName)
KR_GETTER(deviceName)
KR_GETTER(deviceModel)
KR_GETTER(osVersion)
KR_GETTER(vendorUUID)
KR_GETTER(md5VendorUUID)
KR_GETTER(peerID)
KR_GETTER(platformVersion)
#undef KR_GETTER

std::string KRAppInfos::debugDescription() const {
    // Every share() prints this, so it is kept until a setter changes the record.
    std::uint64_t version = 0;
    {
        std::lock_guard lock(mutex_);
        if (description_ && descriptionVersion_ == version_) return *description_;
        version = version_;
    }
    std::string text = describe();
    std::lock_guard lock(mutex_);
    if (version == version_) {
        description_ = text;
        descriptionVersion_ = version;
    }
    return text;
}

std::string KRAppInfos::describe() const {
    auto entry = [](Text value) { return value ? Value(std::move(*value)) : Value("nil"); };
    // Read through the getters, so that the substitute bundle name shows.
    const platform::Dictionary properties{
        {"applicationBundleId", entry(applicationBundleId())},
        {"iOSPrefixApplicationBundleId", entry(iOSPrefixApplicationBundleId())},
        {"dislayName", entry(dislayName())},
        {"deviceName", entry(deviceName())},
        {"deviceModel", entry(deviceModel())},
        {"osVersion", entry(osVersion())},
        {"vendorUUID", entry(vendorUUID())},
        {"md5VendorUUID", entry(md5VendorUUID())},
        {"peerID", entry(peerID())},
        {"platformVersion", entry(platformVersion())},
        {"customAppName", entry(customAppName())},
        {"replaceBundleName", entry(replaceBundleName())},
    };
    return platform::format("<%@: %p> -- %@", "KRAppInfos", static_cast<const void*>(this), Value(properties));
}

std::string urlWith(std::optional<std::string_view> first, std::optional<std::string_view> second) {
    return platform::format("%@%@", view(first), view(second));
}

}  // namespace krcommon

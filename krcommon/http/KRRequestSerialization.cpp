#include <krcommon/http/KRRequestSerialization.h>

#include <krcommon/errors/KRSDKLogger.h>
#include <krcommon/platform/core/Error.h>
#include <krcommon/platform/io/JSONSerialization.h>
#include <krcommon/platform/io/UTF8.h>

#include <algorithm>
#include <vector>

namespace krcommon {

namespace detail {

namespace {
constexpr auto kValueReserved = platform::PercentEncodeSet::of("$&+,/:;=?@ ");
constexpr auto kURLUnsafe = platform::PercentEncodeSet::of("`#%^{}\"[]|\\<> ");
}  // namespace

const platform::PercentEncodeSet& valueReservedSet() noexcept { return kValueReserved; }
const platform::PercentEncodeSet& urlUnsafeSet() noexcept { return kURLUnsafe; }

}  // namespace detail

std::optional<std::string> KRParamsEncdoe(std::optional<std::string_view> value) {
    if (!value || !platform::UTF8::isValid(*value)) return std::nullopt;
    std::string out;
    out.reserve(value->size() + value->size() / 4);
    platform::appendPercentEncoded(out, *value, detail::valueReservedSet());
    return out;
}

std::optional<std::string> KRQueryStringFromParameters(const platform::Dictionary& parameters) {
    std::vector<const platform::Dictionary::Entry*> sorted;
    sorted.reserve(parameters.size());
    std::size_t estimate = 0;
    for (const auto& entry : parameters) {
        const std::string* value = entry.second.string();
        if (!value) {
            KRSDK_LOG("Common", 2, "value is not NSString");
            return std::nullopt;
        }
        sorted.push_back(&entry);
        estimate += entry.first.size() + value->size() + 2;
    }
    // Plain byte order: upper-case before "_" before lower-case, whatever the locale.
    std::sort(sorted.begin(), sorted.end(), [](const auto* a, const auto* b) { return a->first < b->first; });

    std::string query;
    query.reserve(estimate + estimate / 4);
    for (const auto* entry : sorted) {
        if (!query.empty()) query.push_back('&');
        query.append(entry->first);
        query.push_back('=');
        const std::string& value = *entry->second.string();
        if (platform::UTF8::isValid(value)) {
            platform::appendPercentEncoded(query, value, detail::valueReservedSet());
        } else {
            query.append(value);  // what cannot be encoded goes as it is
        }
    }
    return query;
}

std::optional<std::string> KRQueryStringFromParameters(const platform::Value& parameters) {
    if (parameters.isNil()) return std::string();
    if (const auto* map = parameters.dictionary()) return KRQueryStringFromParameters(*map);
    KRSDK_LOG("Common", 2, "parameters is not NSDictionary");
    return std::nullopt;
}

std::optional<std::string> KRJsonFromParameters(const platform::Value& parameters) {
    std::shared_ptr<platform::Error> error;
    auto json = platform::JSONSerialization::write(parameters, /*pretty=*/true, &error);
    if (!json) {
        KRSDK_LOG("Common", 2, "Got an error: %@", error);
        return std::nullopt;
    }
    return json;
}

}  // namespace krcommon

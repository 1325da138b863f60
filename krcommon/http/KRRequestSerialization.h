#pragma once

// The wire forms of a caller's parameters: a sorted, percent-encoded query
// string (also the form-encoded body) and a pretty-printed JSON body. Sibling
// modules call these directly.

#include <krcommon/platform/core/Value.h>
#include <krcommon/platform/net/PercentEncoding.h>

#include <optional>
#include <string>
#include <string_view>

namespace krcommon {

/// Percent-encodes `value` for use as a query or form value: every byte of a
/// non-ASCII character and each of "$&+,/:;=?@ " becomes "%XX" (upper-case
/// hex); everything else, "%" and "#" included, is copied unchanged. Answers
/// nullopt when `value` is absent or is not valid UTF-8.
KRCOMMON_EXPORT std::optional<std::string> KRParamsEncdoe(std::optional<std::string_view> value);

/// "key=value" pairs joined with "&", keys in plain byte order and never
/// encoded, values encoded with `KRParamsEncdoe` (the raw value when that
/// fails). Nil or an empty dictionary gives "". Any value that is not a string
/// discards the whole query: logs "value is not NSString" and answers nullopt.
/// A parameter object that is neither nil nor a dictionary logs
/// "parameters is not NSDictionary" and answers nullopt.
KRCOMMON_EXPORT std::optional<std::string> KRQueryStringFromParameters(const platform::Value& parameters);
KRCOMMON_EXPORT std::optional<std::string> KRQueryStringFromParameters(const platform::Dictionary& parameters);

/// The parameters as pretty-printed JSON (two-space indents, " : " between key
/// and value, members in insertion order). When they cannot be serialised
/// (nil, data, dates, objects, non-finite numbers) logs "Got an error: %@"
/// with the serialiser's error and answers nullopt.
KRCOMMON_EXPORT std::optional<std::string> KRJsonFromParameters(const platform::Value& parameters);

namespace detail {

/// The 11 characters a query value must not carry raw: "$&+,/:;=?@ ".
KRCOMMON_EXPORT const platform::PercentEncodeSet& valueReservedSet() noexcept;
/// The 14 characters a URL must not carry raw: "`#%^{}\"[]|\\<> ".
KRCOMMON_EXPORT const platform::PercentEncodeSet& urlUnsafeSet() noexcept;

}  // namespace detail

}  // namespace krcommon

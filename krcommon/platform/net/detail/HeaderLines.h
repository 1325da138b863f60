#pragma once

// The lines of an HTTP header as they go out and come in: which request
// fields may be sent, and what a received status or field line says.

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace krcommon::platform::detail {

/// Whether `name` can go out as a field name: one or more token characters (letters, digits and
/// !#$%&'*+-.^_`|~), so nothing in it can end the line or start another field.
bool isSendableFieldName(std::string_view name) noexcept;

/// Whether `value` can go out as a field value: no CR, LF or NUL, which would end the line
/// early or cut it short.
bool isSendableFieldValue(std::string_view value) noexcept;

/// The status code of a status line ("HTTP/1.1 200 OK\r\n", "HTTP/2 404\r\n"); nullopt when
/// `line` is not a status line with a three-digit code.
std::optional<int> parseStatusLine(std::string_view line) noexcept;

/// The name and value of a field line ("Name: value\r\n"), both without surrounding blanks;
/// nullopt for the empty line that ends a header, a line without a colon or with an empty name.
std::optional<std::pair<std::string_view, std::string_view>> parseFieldLine(std::string_view line) noexcept;

/// Adds a received field to `fields`; a name already there (in any case) gets ", value" appended.
void addReceivedField(std::vector<std::pair<std::string, std::string>>& fields, std::string_view name,
                      std::string_view value);

/// Whether following a redirect from `fromURL` to `location` (absolute, scheme-relative or
/// relative) would leave HTTPS for plain HTTP.
bool redirectLeavesHTTPS(std::string_view fromURL, std::string_view location) noexcept;

}  // namespace krcommon::platform::detail

#pragma once

// Reader of localisation tables (`<table>.strings`) in every form app bundles
// ship them:
//
// - text tables, `"key" = "value";` entries with `/* */` and `//` comments,
//   in UTF-8 (with or without a byte order mark) or UTF-16 (big or little
//   endian, with a byte order mark or recognised by its NUL bytes);
// - XML and binary property lists whose root is a dictionary.
//
// Text tables follow the old-style property-list rules: keys and values are
// quoted strings ("...") or unquoted words of letters, digits and `_$+/:.-`;
// `"key";` alone maps the key to itself; the whole table may be wrapped in
// `{ }`. Escapes in quoted strings: \n \t \r \a \b \f \v \" \' \\, \U and \u
// followed by up to four hex digits (a surrogate pair written as two escapes
// makes one character), and \ followed by up to three octal digits (the code
// point of that value). Any other escaped character stands for itself. A later
// entry with the same key replaces an earlier one.

#include <krcommon/platform/core/Export.h>

#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace krcommon::platform {

class KRCOMMON_EXPORT StringsTable {
public:
    /// Key to localised text, both UTF-8.
    using Map = std::unordered_map<std::string, std::string>;

    /// Parses a table from the bytes of its file. Answers nullopt when the
    /// bytes are not a table: a syntax error, text that is not valid UTF-8 or
    /// UTF-16, a property list that does not parse or whose root is not a
    /// dictionary, or a text table with nested arrays or dictionaries. In a
    /// property list, entries whose value is not a string are left out.
    static std::optional<Map> parse(std::string_view bytes);

    /// Reads and parses the file at `path`; nullopt when it is missing or
    /// cannot be read or parsed. A file that exists but cannot be read or
    /// parsed is named on the system log, once per path in the process.
    static std::optional<Map> readFile(const std::string& path);
};

}  // namespace krcommon::platform

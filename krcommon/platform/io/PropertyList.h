#pragma once

// Property lists, read from XML or binary bytes and written as XML, as the
// platform's serialisation does. Reading maps <dict> to Dictionary (document
// order), <array> to Array, <string> to String, <integer> to Integer (unsigned
// values above INT64_MAX to Real), <real> to Real, <true/>/<false/> to Boolean,
// <date> to Date and <data> to Data; a keyed-archive UID becomes the
// dictionary {"CF$UID": n}, as XML property lists spell it.

#include <krcommon/platform/core/Error.h>
#include <krcommon/platform/core/Value.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace krcommon::platform {

class KRCOMMON_EXPORT PropertyList {
public:
    /// Domain and codes of the errors made here: the platform's "corrupt
    /// property list" and "cannot write property list" codes.
    static constexpr const char* errorDomain = "NSCocoaErrorDomain";
    static constexpr std::int64_t readErrorCode = 3840;
    static constexpr std::int64_t writeErrorCode = 3851;
    /// Deepest nesting of arrays and dictionaries read or written.
    static constexpr int maximumDepth = 512;

    /// Parses an XML ("<?xml ..." or "<plist ...", a UTF-8 byte order mark
    /// allowed) or binary ("bplist00") property list. Answers nullopt for
    /// anything else: empty, truncated or malformed input, strings that are not
    /// UTF-8, nesting deeper than maximumDepth, binary lists whose shared objects
    /// would expand far beyond their size. Sets `error` (domain 3840, with an
    /// "NSDebugDescription") when given.
    static std::optional<Value> parse(std::string_view bytes, std::shared_ptr<Error>* error = nullptr);
    static std::optional<Value> parse(const Data& bytes, std::shared_ptr<Error>* error = nullptr) {
        return parse(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()), error);
    }

    /// The XML property list of `value`: dictionaries, arrays, strings, numbers,
    /// booleans, dates (years 1 to 9999, written to the second) and data, at any
    /// level. Nil, the null object, platform objects, strings with a NUL
    /// character or invalid UTF-8 and nesting deeper than maximumDepth are not
    /// representable: the answer is nullopt and `error` (3851) says why. A
    /// carriage return in a string or key is written as the character reference
    /// "&#13;", which XML readers keep (a literal one they turn into a line feed).
    static std::optional<std::string> writeXML(const Value& value, std::shared_ptr<Error>* error = nullptr);

    /// `document`, as writeXML wrote it for a top-level array, with `items`
    /// appended to that array: the very text writeXML gives for the longer
    /// array, made without writing the items already there again. Nullopt when
    /// `document` does not end as such a list does, or when an item is not
    /// representable (`error` then says why, as writeXML's would).
    static std::optional<std::string> appendToXMLArray(std::string document, std::span<const Value> items,
                                                       std::shared_ptr<Error>* error = nullptr);

    /// Reads and parses the file at `path`. A file that cannot be read gives the
    /// file manager's POSIX error.
    static std::optional<Value> readFile(const std::string& path, std::shared_ptr<Error>* error = nullptr);

    /// Writes `value` as an XML property list to `path`, atomically (see
    /// FileManager::writeAtomically) when asked.
    static bool writeFile(const std::string& path, const Value& value, bool atomically,
                          std::shared_ptr<Error>* error = nullptr);
};

}  // namespace krcommon::platform

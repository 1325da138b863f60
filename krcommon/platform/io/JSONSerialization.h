#pragma once

// JSON in and out, as the platform's JSON serialisation does it. Reading goes
// through RapidJSON's SAX reader straight into Values; the top level must be an
// object or an array. Writing produces compact text or the platform's pretty
// form: two-space indents, one member or element per line, " : " between key
// and value, "{\n\n}" for an empty collection. Members keep insertion order and
// "/" is written as "\/".

#include <krcommon/platform/core/Error.h>
#include <krcommon/platform/core/Value.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace krcommon::platform {

class KRCOMMON_EXPORT JSONSerialization {
public:
    /// Domain and codes of JSON failures: 3840 for text that cannot be read,
    /// 3851 for values that cannot be written.
    static constexpr const char* errorDomain = "NSCocoaErrorDomain";
    static constexpr std::int64_t readErrorCode = 3840;
    static constexpr std::int64_t writeErrorCode = 3851;
    /// User-info key of a read error holding the byte offset where reading stopped.
    static constexpr const char* errorIndexKey = "NSJSONSerializationErrorIndex";
    /// Deepest nesting of arrays and objects read or written.
    static constexpr int maximumDepth = 512;

    /// Parses UTF-8 JSON (a leading byte order mark allowed) whose top level is
    /// an object or an array. Integers that fit 64 signed bits become integers;
    /// larger ones and numbers with a fraction or exponent become reals. Strings
    /// must be valid UTF-8. Answers nullopt on anything else, deeper nesting
    /// than maximumDepth included, and then sets `error` when given (3840, with
    /// an "NSDebugDescription" naming the problem and where it is).
    static std::optional<Value> parse(std::string_view bytes, std::shared_ptr<Error>* error = nullptr);
    static std::optional<Value> parse(const Data& bytes, std::shared_ptr<Error>* error = nullptr) {
        return parse(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()), error);
    }

    /// Writes `value` as JSON: an array or a dictionary holding strings (valid
    /// UTF-8), finite numbers, booleans, the null object and further arrays and
    /// dictionaries, at most maximumDepth deep. Anything else (nil, data, dates,
    /// platform objects) gives nullopt and sets `error` (3851) when given.
    static std::optional<std::string> write(const Value& value, bool pretty,
                                            std::shared_ptr<Error>* error = nullptr);

    /// Whether write() would accept `value`. Writes nothing.
    static bool isValidJSONObject(const Value& value);
};

}  // namespace krcommon::platform

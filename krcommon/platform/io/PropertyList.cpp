#include <krcommon/platform/io/PropertyList.h>

#include <krcommon/platform/io/FileManager.h>
#include <krcommon/platform/io/UTF8.h>
#include <krcommon/platform/security/Base64.h>

#include <fmt/format.h>

#include <plist/plist.h>

#include <locale.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <charconv>
#include <cstring>
#include <iterator>
#include <vector>

// libplist 2.2 recurses once per nesting level in its XML and binary readers,
// its writer and plist_free(), and it copies a binary list's shared objects
// wherever they are referenced, so a few hundred bytes of crafted binary can
// expand into gigabytes. Both are checked on the raw bytes before libplist sees
// them, as are dictionary keys with a NUL character, on which libplist stops
// the process with a failed assertion. Truncated and corrupted input of either
// format is otherwise handled by libplist without faults or leaks.

namespace krcommon::platform {

namespace {

constexpr double kSecondsFrom1970To2001 = 978307200.0;
// The dates libplist writes and reads back: years 1 to 9999.
constexpr double kEarliestDate = -62135596800.0;  // 0001-01-01T00:00:00Z
constexpr double kLatestDate = 253402300800.0;    // 10000-01-01T00:00:00Z, excluded

struct PlistDeleter {
    void operator()(plist_t node) const noexcept { plist_free(node); }
};
using PlistPtr = std::unique_ptr<void, PlistDeleter>;

// libplist reads reals with strtod(), which follows LC_NUMERIC: a host that
// adopted a German locale would read "0.25" as 0. Its calls run under the C
// locale, set for the calling thread only.
class CLocaleScope {
public:
    CLocaleScope() : previous_(cLocale() ? ::uselocale(cLocale()) : nullptr) {}
    ~CLocaleScope() {
        if (previous_) ::uselocale(previous_);
    }
    CLocaleScope(const CLocaleScope&) = delete;
    CLocaleScope& operator=(const CLocaleScope&) = delete;

private:
    static locale_t cLocale() {
        static const locale_t c = ::newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(nullptr));
        return c;
    }
    locale_t previous_;
};

std::shared_ptr<Error> makeError(std::int64_t code, std::string text) {
    return Error::make(PropertyList::errorDomain, code, Dictionary{{"NSDebugDescription", std::move(text)}});
}

std::uint64_t readBigEndian(const unsigned char* p, unsigned width) noexcept {
    std::uint64_t v = 0;
    for (unsigned i = 0; i < width; ++i) v = (v << 8) | p[i];
    return v;
}

bool startsWith(std::string_view text, std::string_view prefix) noexcept {
    return text.substr(0, prefix.size()) == prefix;
}

// ---------------------------------------------------------------- input checks

// Whether <array> and <dict> elements nest no deeper than `limit`. The count errs
// on the high side wherever this scan and libplist might read the text
// differently: opening tags count even inside comments, CDATA sections and
// declarations (closing tags there do not), and a tag is taken as self-closing
// only in the plain forms <array/> and <array />.
bool xmlNestingWithin(std::string_view xml, int limit) noexcept {
    auto isNameChar = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == '-'; };
    auto opensContainer = [](std::string_view tag) { return startsWith(tag, "array") || startsWith(tag, "dict"); };
    // Opening tags of containers inside a skipped region.
    auto opensIn = [&](std::string_view region) {
        int n = 0;
        for (std::size_t i = region.find('<'); i != std::string_view::npos; i = region.find('<', i + 1))
            if (opensContainer(region.substr(i + 1))) ++n;
        return n;
    };
    int depth = 0;
    std::size_t i = 0;
    while ((i = xml.find('<', i)) != std::string_view::npos) {
        const std::string_view rest = xml.substr(i + 1);
        // The terminator is searched after the opening: "<!-->" does not end a comment.
        struct Region {
            std::string_view opening, terminator;
        };
        static constexpr Region regions[] = {{"!--", "-->"}, {"![CDATA[", "]]>"}, {"?", "?>"}, {"!", ">"}};
        std::string_view terminator;
        std::size_t opening = 0;
        for (const auto& region : regions) {
            if (!startsWith(rest, region.opening)) continue;
            terminator = region.terminator;
            opening = region.opening.size();
            break;
        }
        if (!terminator.empty()) {
            const std::size_t end = rest.find(terminator, opening);
            const std::string_view region = rest.substr(0, end);
            depth += opensIn(region);
            if (depth > limit) return false;
            if (end == std::string_view::npos) break;
            i += 1 + end + terminator.size();
            continue;
        }
        ++i;
        if (startsWith(rest, "/")) {
            std::size_t n = 1;
            while (n < rest.size() && isNameChar(rest[n])) ++n;
            const std::string_view name = rest.substr(1, n - 1);
            while (n < rest.size() && (rest[n] == ' ' || rest[n] == '\t' || rest[n] == '\r' || rest[n] == '\n')) ++n;
            if ((name == "array" || name == "dict") && n < rest.size() && rest[n] == '>' && depth > 0) --depth;
            continue;
        }
        if (!opensContainer(rest)) continue;
        std::size_t n = 0;
        while (n < rest.size() && isNameChar(rest[n])) ++n;
        const std::string_view name = rest.substr(0, n);
        while (n < rest.size() && rest[n] == ' ') ++n;
        const bool selfClosing = (name == "array" || name == "dict") && startsWith(rest.substr(n), "/>");
        if (!selfClosing && ++depth > limit) return false;
    }
    return true;
}

// Whether a binary list's object graph, as libplist will build it, nests no
// deeper than `depthLimit` containers and expands to no more than `nodeLimit`
// nodes. Also rejects what libplist would reject anyway: a broken trailer,
// offsets or references out of range, reference cycles.
bool binaryShapeWithin(std::string_view bytes, std::size_t depthLimit, std::uint64_t nodeLimit) {
    const auto* b = reinterpret_cast<const unsigned char*>(bytes.data());
    const std::uint64_t size = bytes.size();
    if (size < 8 + 32) return false;
    const unsigned char* trailer = b + size - 32;
    const unsigned offsetWidth = trailer[6];
    const unsigned refWidth = trailer[7];
    const std::uint64_t count = readBigEndian(trailer + 8, 8);
    const std::uint64_t top = readBigEndian(trailer + 16, 8);
    const std::uint64_t table = readBigEndian(trailer + 24, 8);
    if (offsetWidth < 1 || offsetWidth > 8 || refWidth < 1 || refWidth > 8) return false;
    if (count == 0 || top >= count || table < 8 || table > size - 32) return false;
    if (count > (size - 32 - table) / offsetWidth) return false;

    // Finds object `i`, its kind (the marker's high nibble), its element count
    // and where its contents start. A count of 15 or more follows the marker as
    // an integer object of 1, 2, 4 or 8 bytes.
    auto locate = [&](std::uint64_t i, unsigned& kind, std::uint64_t& n, std::uint64_t& pos) {
        const std::uint64_t offset = readBigEndian(b + table + i * offsetWidth, offsetWidth);
        if (offset < 8 || offset >= table) return false;
        kind = b[offset] >> 4;
        n = b[offset] & 0xF;
        pos = offset + 1;
        if (n == 0xF && kind >= 0x4 && kind != 0x8) {  // a UID's nibble is its width
            if (pos >= table || (b[pos] >> 4) != 1 || (b[pos] & 0xF) > 3) return false;
            const unsigned width = 1u << (b[pos] & 0xF);
            if (table - pos - 1 < width) return false;
            n = readBigEndian(b + pos + 1, width);
            pos += 1 + width;
        }
        return true;
    };

    // Where object `i`'s references start and how many it has (0 for scalars);
    // the first `keys` of them name a dictionary's keys.
    struct Children {
        bool container = false;
        const unsigned char* refs = nullptr;
        std::uint64_t count = 0;
        std::uint64_t keys = 0;
    };
    auto childrenOf = [&](std::uint64_t i, Children& out) {
        unsigned kind = 0;
        std::uint64_t n = 0, pos = 0;
        if (!locate(i, kind, n, pos)) return false;
        out = {};
        if (kind != 0xA && kind != 0xC && kind != 0xD) return true;
        const std::uint64_t room = (table - pos) / refWidth;
        if (n > room || (kind == 0xD && n > room / 2)) return false;
        out.container = true;
        out.refs = b + pos;
        out.count = kind == 0xD ? 2 * n : n;
        out.keys = kind == 0xD ? n : 0;
        return true;
    };

    // libplist aborts on an assertion when a dictionary key holds a NUL
    // character, so such keys are refused here. Keys that are not strings
    // libplist refuses itself.
    std::vector<bool> keyChecked(count, false);
    auto keyAcceptable = [&](std::uint64_t i) {
        if (keyChecked[i]) return true;
        unsigned kind = 0;
        std::uint64_t n = 0, pos = 0;
        if (!locate(i, kind, n, pos)) return false;
        if (kind == 0x5 || kind == 0x7) {  // ASCII or UTF-8 bytes
            if (n > table - pos || std::memchr(b + pos, 0, n)) return false;
        } else if (kind == 0x6) {  // UTF-16 units
            if (n > (table - pos) / 2) return false;
            for (std::uint64_t u = 0; u < n; ++u)
                if (b[pos + 2 * u] == 0 && b[pos + 2 * u + 1] == 0) return false;
        }
        keyChecked[i] = true;
        return true;
    };

    enum : std::uint8_t { Unseen, Open, Done };
    std::vector<std::uint8_t> state(count, Unseen);
    std::vector<std::uint16_t> depthOf(count, 0);  // containers below and including the object
    std::vector<std::uint32_t> nodesOf(count, 0);  // nodes of the object's expansion
    struct Frame {
        std::uint64_t object;
        Children children;
        std::uint64_t next = 0;
        std::uint64_t depth = 0;
        std::uint64_t nodes = 1;
    };
    std::vector<Frame> stack;

    // Scalars finish at once; containers are pushed and finish when their last child has.
    auto enter = [&](std::uint64_t object) {
        Children children;
        if (!childrenOf(object, children)) return false;
        if (!children.container) {
            state[object] = Done;
            nodesOf[object] = 1;
            return true;
        }
        if (stack.size() >= depthLimit) return false;
        state[object] = Open;
        stack.push_back(Frame{object, children});
        return true;
    };
    if (!enter(top)) return false;
    std::uint64_t finished = top;  // the object whose result folds into the frame below
    bool folding = state[top] == Done;
    while (!stack.empty()) {
        Frame& frame = stack.back();
        if (folding) {
            frame.depth = std::max<std::uint64_t>(frame.depth, depthOf[finished]);
            frame.nodes += nodesOf[finished];
            if (frame.nodes > nodeLimit) return false;
            folding = false;
        }
        if (frame.next < frame.children.count) {
            const std::uint64_t child = readBigEndian(frame.children.refs + frame.next * refWidth, refWidth);
            const bool isKey = frame.next < frame.children.keys;
            ++frame.next;
            if (child >= count || state[child] == Open) return false;  // out of range, or a cycle
            if (isKey && !keyAcceptable(child)) return false;
            if (state[child] == Unseen && !enter(child)) return false;
            if (state[child] == Done) {
                finished = child;
                folding = true;
            }
            continue;
        }
        state[frame.object] = Done;
        depthOf[frame.object] = static_cast<std::uint16_t>(frame.depth + 1);
        nodesOf[frame.object] = static_cast<std::uint32_t>(frame.nodes);
        finished = frame.object;
        folding = true;
        stack.pop_back();
    }
    return true;
}

// ---------------------------------------------------------------- libplist nodes to Values

// libplist keeps dates as seconds since 2001 in a double but hands them out as
// 32-bit seconds, which saturate outside 1901-2069. Those come back exactly
// from the node's binary form: "bplist00", then the date object 0x33 and the
// big-endian double.
double secondsSince2001(plist_t node) {
    std::int32_t seconds = 0;
    std::int32_t microseconds = 0;
    plist_get_date_val(node, &seconds, &microseconds);
    if (seconds != INT32_MIN && seconds != INT32_MAX) return seconds + microseconds / 1e6;
    char* bin = nullptr;
    std::uint32_t length = 0;
    plist_to_bin(node, &bin, &length);
    double exact = seconds;
    if (bin && length >= 17 && static_cast<unsigned char>(bin[8]) == 0x33) {
        const std::uint64_t bits = readBigEndian(reinterpret_cast<const unsigned char*>(bin) + 9, 8);
        std::memcpy(&exact, &bits, sizeof exact);
    }
    if (bin) plist_to_bin_free(bin);
    return exact;
}

// libplist keeps every integer in 64 bits, negative ones as two's complement,
// and marks those that came in above INT64_MAX as 128-bit wide. A wide one does
// not compare equal to an ordinary node of the same bits.
bool isWideUnsigned(plist_t node, std::uint64_t bits) {
    PlistPtr ordinary(plist_new_uint(bits));
    return !plist_compare_node_value(node, ordinary.get());
}

class NodeReader {
public:
    bool read(plist_t node, Value& out, int depth) {
        switch (plist_get_node_type(node)) {
            case PLIST_BOOLEAN: {
                std::uint8_t b = 0;
                plist_get_bool_val(node, &b);
                out = b != 0;
                return true;
            }
            case PLIST_UINT: {
                std::uint64_t bits = 0;
                plist_get_uint_val(node, &bits);
                if (bits > static_cast<std::uint64_t>(INT64_MAX) && isWideUnsigned(node, bits))
                    out = static_cast<double>(bits);
                else
                    out = static_cast<std::int64_t>(bits);
                return true;
            }
            case PLIST_REAL: {
                double d = 0;
                plist_get_real_val(node, &d);
                out = d;
                return true;
            }
            case PLIST_STRING: {
                std::uint64_t length = 0;
                const char* text = plist_get_string_ptr(node, &length);
                return string(std::string_view(text ? text : "", text ? length : 0), out);
            }
            case PLIST_KEY: {
                char* text = nullptr;
                plist_get_key_val(node, &text);
                const bool ok = string(text ? text : "", out);
                std::free(text);
                return ok;
            }
            case PLIST_DATA: {
                std::uint64_t length = 0;
                const auto* bytes = reinterpret_cast<const std::uint8_t*>(plist_get_data_ptr(node, &length));
                out = bytes ? Data(bytes, bytes + length) : Data();
                return true;
            }
            case PLIST_DATE: out = Date{secondsSince2001(node) + kSecondsFrom1970To2001}; return true;
            case PLIST_UID: {
                std::uint64_t uid = 0;
                plist_get_uid_val(node, &uid);
                out = Dictionary{{"CF$UID", static_cast<std::int64_t>(uid)}};
                return true;
            }
            case PLIST_ARRAY: return array(node, out, depth + 1);
            case PLIST_DICT: return dictionary(node, out, depth + 1);
            default: return fail("Unknown object type in property list");
        }
    }

    std::string why;

private:
    bool fail(std::string text) {
        why = std::move(text);
        return false;
    }

    bool string(std::string_view text, Value& out) {
        if (!UTF8::isValid(text)) return fail("Invalid UTF-8 string in property list");
        out = std::string(text);
        return true;
    }

    bool array(plist_t node, Value& out, int depth) {
        if (depth > PropertyList::maximumDepth) return fail("Too many nested arrays or dictionaries");
        const std::uint32_t size = plist_array_get_size(node);
        Array items;
        items.reserve(size);
        for (std::uint32_t i = 0; i < size; ++i) {
            plist_t item = plist_array_get_item(node, i);
            if (!item) return fail("Missing array item");
            if (!read(item, items.emplace_back(), depth)) return false;
        }
        out = std::move(items);
        return true;
    }

    bool dictionary(plist_t node, Value& out, int depth) {
        if (depth > PropertyList::maximumDepth) return fail("Too many nested arrays or dictionaries");
        Dictionary members;
        members.reserve(plist_dict_get_size(node));
        plist_dict_iter it = nullptr;
        plist_dict_new_iter(node, &it);
        bool ok = true;
        while (ok) {
            char* key = nullptr;
            plist_t item = nullptr;
            plist_dict_next_item(node, it, &key, &item);
            if (!item) {
                std::free(key);
                break;
            }
            Value value;
            const std::string_view keyText = key ? key : "";
            ok = read(item, value, depth) && (UTF8::isValid(keyText) || fail("Invalid UTF-8 key in property list"));
            if (ok) members.set(std::string(keyText), std::move(value));
            std::free(key);
        }
        std::free(it);
        if (!ok) return false;
        out = std::move(members);
        return true;
    }
};

// ---------------------------------------------------------------- Values to XML

using namespace std::string_view_literals;

// Writes XML property lists directly, in the layout libplist and the
// platform's writer use: a tab per level, "<dict/>" and "<array/>" for empty
// collections, reals with 17 significant digits, data in Base64 lines whose
// width shrinks with the depth, dates to the second in UTC.
class XMLWriter {
public:
    bool write(const Value& value, int depth) {
        switch (value.kind()) {
            case Value::Kind::Boolean: line(depth, *value.boolValue() ? "<true/>" : "<false/>"); return true;
            case Value::Kind::Integer: {
                char digits[24];
                const auto end = std::to_chars(digits, digits + sizeof digits, *value.integerValue()).ptr;
                indent(depth);
                out += "<integer>"sv;
                out.append(digits, end);
                out += "</integer>\n"sv;
                return true;
            }
            case Value::Kind::Real: real(depth, *value.realValue()); return true;
            case Value::Kind::String: {
                const std::string& text = *value.string();
                if (!representable(text)) return false;
                indent(depth);
                out += "<string>"sv;
                escaped(text);
                out += "</string>\n"sv;
                return true;
            }
            case Value::Kind::Data: data(depth, *value.data()); return true;
            case Value::Kind::Date: return date(depth, value.date()->timeIntervalSince1970);
            case Value::Kind::Array: {
                if (depth + 1 > PropertyList::maximumDepth) return fail("Too many nested arrays or dictionaries");
                const Array& items = *value.array();
                if (items.empty()) {
                    line(depth, "<array/>");
                    return true;
                }
                line(depth, "<array>");
                for (const Value& item : items)
                    if (!write(item, depth + 1)) return false;
                line(depth, "</array>");
                return true;
            }
            case Value::Kind::Dictionary: {
                if (depth + 1 > PropertyList::maximumDepth) return fail("Too many nested arrays or dictionaries");
                const Dictionary& members = *value.dictionary();
                if (members.empty()) {
                    line(depth, "<dict/>");
                    return true;
                }
                line(depth, "<dict>");
                for (const auto& [key, item] : members) {
                    if (!representable(key)) return false;
                    indent(depth + 1);
                    out += "<key>"sv;
                    escaped(key);
                    out += "</key>\n"sv;
                    if (!write(item, depth + 1)) return false;
                }
                line(depth, "</dict>");
                return true;
            }
            case Value::Kind::Nil: return fail("Property list invalid for format (nil)");
            case Value::Kind::Null: return fail("Property list invalid for format (NSNull)");
            case Value::Kind::Object:
                return fail("Property list invalid for format (" + (*value.object())->className() + ")");
        }
        return fail("Property list invalid for format");
    }

    std::string out;
    std::string why;

private:
    bool fail(std::string text) {
        why = std::move(text);
        return false;
    }

    bool representable(const std::string& text) {
        if (text.find('\0') != std::string::npos) return fail("Property list string contains a NUL character");
        if (!UTF8::isValid(text)) return fail("Property list string is not valid UTF-8");
        return true;
    }

    void indent(int depth) {
        static constexpr std::string_view tabs = "\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t";
        if (depth <= 0) return;
        const auto count = static_cast<std::size_t>(depth);
        if (count <= tabs.size()) {
            out.append(tabs.data(), count);
        } else {
            out.append(count, '\t');
        }
    }
    void line(int depth, std::string_view text) {
        indent(depth);
        out += text;
        out += '\n';
    }

    // The three characters markup needs are escaped, and the carriage return:
    // XML readers turn a literal CR LF into LF and a lone CR into LF, but keep
    // the character reference.
    static bool needsEscape(char c) { return c == '&' || c == '<' || c == '>' || c == '\r'; }
    static std::string_view escapeOf(char c) {
        return c == '&' ? "&amp;"sv : c == '<' ? "&lt;"sv : c == '>' ? "&gt;"sv : "&#13;"sv;
    }
    void escaped(std::string_view text) {
        std::size_t from = 0;
        std::size_t i = 0;
        while (i < text.size() && !needsEscape(text[i])) ++i;
        if (i == text.size()) {  // the usual case: nothing to escape
            out += text;
            return;
        }
        for (; i < text.size(); ++i) {
            const char c = text[i];
            if (!needsEscape(c)) continue;
            out.append(text.data() + from, i - from);
            out += escapeOf(c);
            from = i + 1;
        }
        out.append(text.data() + from, text.size() - from);
    }

    void real(int depth, double number) {
        indent(depth);
        if (std::isnan(number)) out += "<real>nan</real>\n";
        else if (std::isinf(number)) out += number > 0 ? "<real>+infinity</real>\n" : "<real>-infinity</real>\n";
        else if (number == 0) out += std::signbit(number) ? "<real>-0.0</real>\n" : "<real>0.0</real>\n";
        else {
            fmt::memory_buffer digits;
            fmt::format_to(std::back_inserter(digits), "{:.17g}", number);
            out += "<real>";
            out.append(digits.data(), digits.size());
            out += "</real>\n";
        }
    }

    void data(int depth, const Data& bytes) {
        line(depth, "<data>");
        std::string text(Base64::encodedLength(bytes.size()), '\0');
        Base64::encode(bytes.data(), bytes.size(), text.data());
        const int level = std::min(depth, 8);
        const std::size_t width = static_cast<std::size_t>(76 - 8 * level);
        for (std::size_t at = 0; at < text.size(); at += width) {
            indent(level);
            out.append(text, at, width);
            out += '\n';
        }
        line(depth, "</data>");
    }

    // Whole seconds, as XML property lists hold them; a time a hair below the
    // next second counts as that second.
    bool date(int depth, double since1970) {
        if (!(since1970 >= kEarliestDate && since1970 < kLatestDate))
            return fail("Property list date outside the years 1 to 9999");
        const auto seconds = static_cast<std::int64_t>(std::floor(since1970 + 0.0000005));
        const std::int64_t days = seconds >= 0 ? seconds / 86400 : (seconds - 86399) / 86400;
        const std::int64_t secondOfDay = seconds - days * 86400;
        // Civil date from days since 1970-01-01 in the proleptic Gregorian calendar.
        const std::int64_t z = days + 719468;
        const std::int64_t era = (z >= 0 ? z : z - 146096) / 146097;
        const std::int64_t dayOfEra = z - era * 146097;
        const std::int64_t yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
        const std::int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
        const std::int64_t monthIndex = (5 * dayOfYear + 2) / 153;
        const std::int64_t day = dayOfYear - (153 * monthIndex + 2) / 5 + 1;
        const std::int64_t month = monthIndex < 10 ? monthIndex + 3 : monthIndex - 9;
        const std::int64_t year = yearOfEra + era * 400 + (month <= 2 ? 1 : 0);
        fmt::memory_buffer text;
        fmt::format_to(std::back_inserter(text), "{:04}-{:02}-{:02}T{:02}:{:02}:{:02}Z", year, month, day,
                       secondOfDay / 3600, secondOfDay / 60 % 60, secondOfDay % 60);
        indent(depth);
        out += "<date>";
        out.append(text.data(), text.size());
        out += "</date>\n";
        return true;
    }
};

}  // namespace

std::optional<Value> PropertyList::parse(std::string_view bytes, std::shared_ptr<Error>* error) {
    auto reject = [&](std::string text) -> std::optional<Value> {
        if (error) *error = makeError(readErrorCode, std::move(text));
        return std::nullopt;
    };
    if (bytes.empty()) return reject("Cannot parse an empty property list");
    if (bytes.size() > UINT32_MAX) return reject("Property list too large");

    const CLocaleScope cLocale;
    PlistPtr root;
    plist_t node = nullptr;
    if (startsWith(bytes, "bplist00")) {
        const std::uint64_t nodeLimit = std::min<std::uint64_t>(UINT32_MAX, 8 * bytes.size() + 65536);
        if (!binaryShapeWithin(bytes, maximumDepth, nodeLimit))
            return reject("Binary property list malformed, nested too deeply or expanding too far");
        plist_from_bin(bytes.data(), static_cast<std::uint32_t>(bytes.size()), &node);
    } else {
        // XML has no NUL character, and libplist would abort on one inside a key.
        if (bytes.find('\0') != std::string_view::npos) return reject("Property list contains a NUL byte");
        if (startsWith(bytes, "\xEF\xBB\xBF")) bytes.remove_prefix(3);
        const std::size_t first = bytes.find_first_not_of(" \t\r\n");
        if (first == std::string_view::npos || bytes[first] != '<')
            return reject("Property list is neither XML nor binary");
        if (!xmlNestingWithin(bytes, maximumDepth)) return reject("Too many nested arrays or dictionaries");
        plist_from_xml(bytes.data(), static_cast<std::uint32_t>(bytes.size()), &node);
    }
    root.reset(node);
    if (!root) return reject("Malformed property list");

    NodeReader reader;
    Value value;
    if (!reader.read(root.get(), value, 0)) return reject(std::move(reader.why));
    return value;
}

std::optional<std::string> PropertyList::writeXML(const Value& value, std::shared_ptr<Error>* error) {
    XMLWriter writer;
    writer.out.reserve(4096);
    writer.out +=
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" \"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
        "<plist version=\"1.0\">\n";
    if (!writer.write(value, 0)) {
        if (error) *error = makeError(writeErrorCode, std::move(writer.why));
        return std::nullopt;
    }
    writer.out += "</plist>\n";
    return std::move(writer.out);
}

std::optional<std::string> PropertyList::appendToXMLArray(std::string document, std::span<const Value> items,
                                                          std::shared_ptr<Error>* error) {
    // A top-level array closes on a line of its own without indentation, the
    // only "</array>" line writeXML leaves unindented; an empty one is a single
    // "<array/>" line.
    static constexpr std::string_view closed = "\n</array>\n</plist>\n";
    static constexpr std::string_view empty = "\n<array/>\n</plist>\n";
    auto endsWith = [&](std::string_view tail) {
        return document.size() >= tail.size() && std::string_view(document).substr(document.size() - tail.size()) == tail;
    };
    const bool wasEmpty = !endsWith(closed);
    if (wasEmpty && !endsWith(empty)) {
        if (error) *error = makeError(writeErrorCode, "Property list is not an XML array to append to");
        return std::nullopt;
    }
    if (items.empty()) return document;

    XMLWriter writer;
    writer.out = std::move(document);
    writer.out.resize(writer.out.size() - (wasEmpty ? empty : closed).size() + 1);
    if (wasEmpty) writer.out += "<array>\n"sv;
    for (const Value& item : items) {
        if (!writer.write(item, 1)) {
            if (error) *error = makeError(writeErrorCode, std::move(writer.why));
            return std::nullopt;
        }
    }
    writer.out += "</array>\n</plist>\n"sv;
    return std::move(writer.out);
}

std::optional<Value> PropertyList::readFile(const std::string& path, std::shared_ptr<Error>* error) {
    const auto bytes = FileManager::contentsAtPath(path, error);
    if (!bytes) return std::nullopt;
    return parse(*bytes, error);
}

bool PropertyList::writeFile(const std::string& path, const Value& value, bool atomically,
                             std::shared_ptr<Error>* error) {
    const auto xml = writeXML(value, error);
    return xml && FileManager::writeToFile(path, *xml, atomically, error);
}

}  // namespace krcommon::platform

#include <krcommon/platform/io/JSONSerialization.h>

#include <krcommon/platform/io/UTF8.h>

// RapidJSON 1.1 computes `stackTop_ + n` on its still unallocated (null) stack
// before the first push of every parse. The arithmetic is harmless in practice,
// but clang's pointer-overflow sanitizer rightly reports it, so that check is
// off for RapidJSON's own functions.
#if defined(__clang__)
#pragma clang attribute push(__attribute__((no_sanitize("pointer-overflow"))), apply_to = function)
#endif
#include <rapidjson/error/en.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/reader.h>
#if defined(__clang__)
#pragma clang attribute pop
#endif

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <charconv>
#include <cmath>
#include <vector>

// Reading uses RapidJSON's iterative SAX reader for the grammar, UTF-8
// validation and unescaping (its own stack stays flat however deep the input)
// and builds Values on an explicit stack of open containers. Writing walks the
// Value straight into the output string: the platform's pretty form (" : "
// after keys, "{\n\n}" when empty), its "\/" and its number text are not what
// RapidJSON's Writer and PrettyWriter produce.

namespace krcommon::platform {

namespace {

std::shared_ptr<Error> makeError(std::int64_t code, std::string text, std::optional<std::size_t> offset = {}) {
    Dictionary info{{"NSDebugDescription", std::move(text)}};
    if (offset) info.set(JSONSerialization::errorIndexKey, static_cast<std::int64_t>(*offset));
    return Error::make(JSONSerialization::errorDomain, code, std::move(info));
}

// Whether a number that std::from_chars found out of range is tiny rather than
// huge: its leading significant digit sits below the units place. `text`
// follows the JSON grammar: -?(0|[1-9][0-9]*)(\.[0-9]+)?([eE][+-]?[0-9]+)?
bool underflows(std::string_view text) {
    std::size_t i = text.front() == '-' ? 1 : 0;
    const std::size_t integerStart = i;
    while (i < text.size() && text[i] >= '0' && text[i] <= '9') ++i;
    long long magnitude = static_cast<long long>(i - integerStart);  // digits before the point
    if (text[integerStart] == '0') {
        magnitude = 0;
        if (i < text.size() && text[i] == '.') {
            for (++i; i < text.size() && text[i] == '0'; ++i) --magnitude;
        }
    }
    long long exponent = 0;
    const std::size_t e = text.find_first_of("eE");
    if (e != std::string_view::npos) {
        std::size_t j = e + 1;
        const bool negative = j < text.size() && text[j] == '-';
        if (j < text.size() && (text[j] == '-' || text[j] == '+')) ++j;
        for (; j < text.size() && exponent < 1000000000; ++j) exponent = exponent * 10 + (text[j] - '0');
        if (negative) exponent = -exponent;
    }
    return magnitude + exponent <= 0;
}

// The members and elements of the containers a parse has open, innermost last.
// A container is made when it closes, at its final size, so each costs one
// allocation. Kept per thread between parses, so that parsing a small document
// allocates nothing else; what a large one left behind is released.
struct ParseScratch {
    struct Frame {
        bool isObject;
        std::size_t first;  // where its members or elements start
    };
    std::vector<Frame> frames;
    std::vector<std::pair<std::string, Value>> members;
    std::vector<Value> elements;

    void reset() noexcept {
        constexpr std::size_t kept = 256;
        frames.clear();
        members.clear();
        elements.clear();
        if (members.capacity() > kept) std::vector<std::pair<std::string, Value>>().swap(members);
        if (elements.capacity() > kept) std::vector<Value>().swap(elements);
        if (frames.capacity() > kept) std::vector<Frame>().swap(frames);
    }
};

// Builds Values from RapidJSON's SAX events with an explicit stack of open
// containers, so deep input costs heap, not native stack, and stops at the limit.
// Numbers arrive as text (RapidJSON 1.1's own conversion turns "0e-300" into
// garbage and "1.8e308" into NaN) and are converted with std::from_chars,
// which rounds correctly.
class ValueBuilder {
public:
    // `checkStrings`: whether the text may hold what wellFormed() looks for.
    explicit ValueBuilder(bool checkStrings) : checkStrings_(checkStrings), scratch_(threadScratch()) {
        scratch_.reset();
    }
    ~ValueBuilder() { scratch_.reset(); }
    ValueBuilder(const ValueBuilder&) = delete;
    ValueBuilder& operator=(const ValueBuilder&) = delete;

    bool Null() { return add(platform::Null{}); }
    bool Bool(bool b) { return add(b); }
    // The reader hands over every number through RawNumber(); these complete the handler.
    bool Int(int i) { return add(i); }
    bool Uint(unsigned u) { return add(u); }
    bool Int64(std::int64_t i) { return add(i); }
    bool Uint64(std::uint64_t u) { return add(static_cast<double>(u)); }
    bool Double(double d) { return add(d); }
    bool RawNumber(const char* s, rapidjson::SizeType length, bool) {
        const std::string_view text(s, length);
        const char* const end = s + length;
        // A plain loop: find_first_of() calls memchr() for every character.
        if (std::none_of(s, end, [](char c) { return c == '.' || c == 'e' || c == 'E'; })) {
            std::int64_t i = 0;
            if (const auto r = std::from_chars(s, end, i); r.ec == std::errc() && r.ptr == end) return add(i);
            // Beyond 64 signed bits, as a real (what fits 64 unsigned bits rounds the same way).
        }
        double d = 0;
        const auto r = std::from_chars(s, end, d);
        if (r.ec == std::errc() && r.ptr == end) return add(d);
        if (r.ec == std::errc::result_out_of_range && underflows(text)) return add(text.front() == '-' ? -0.0 : 0.0);
        numberTooBig = true;
        return false;
    }
    bool String(const char* s, rapidjson::SizeType length, bool) {
        return wellFormed(s, length) && add(std::string(s, length));
    }
    bool Key(const char* s, rapidjson::SizeType length, bool) {
        if (!wellFormed(s, length)) return false;
        scratch_.members.emplace_back(std::string(s, length), Value());  // its value comes next
        return true;
    }
    bool StartObject() { return open(true); }
    bool EndObject(rapidjson::SizeType) {
        const std::size_t first = scratch_.frames.back().first;
        auto& members = scratch_.members;
        const auto from = members.begin() + static_cast<std::ptrdiff_t>(first);
        // A repeated key keeps its first position and its last value.
        Dictionary dictionary(std::vector<Dictionary::Entry>(std::make_move_iterator(from),
                                                             std::make_move_iterator(members.end())));
        members.erase(from, members.end());
        return close(Value(std::move(dictionary)));
    }
    bool StartArray() { return open(false); }
    bool EndArray(rapidjson::SizeType) {
        const std::size_t first = scratch_.frames.back().first;
        auto& elements = scratch_.elements;
        const auto from = elements.begin() + static_cast<std::ptrdiff_t>(first);
        Array array(std::make_move_iterator(from), std::make_move_iterator(elements.end()));
        elements.erase(from, elements.end());
        return close(Value(std::move(array)));
    }

    std::optional<Value> result;
    bool tooDeep = false;
    bool notAContainer = false;
    bool numberTooBig = false;
    bool loneSurrogate = false;

private:
    static ParseScratch& threadScratch() {
        thread_local ParseScratch scratch;
        return scratch;
    }

    // RapidJSON checks that an escaped high surrogate has its low half but lets
    // a lone low one (\uDC00-\uDFFF) through, encoded as ED B0-BF xx, which is
    // not UTF-8. Raw input has been validated already, so only those bytes can be wrong.
    bool wellFormed(const char* s, rapidjson::SizeType length) {
        if (!checkStrings_ || !std::memchr(s, 0xED, length) || UTF8::isValid(std::string_view(s, length))) return true;
        loneSurrogate = true;
        return false;
    }

    bool open(bool isObject) {
        auto& frames = scratch_.frames;
        if (static_cast<int>(frames.size()) >= JSONSerialization::maximumDepth) {
            tooDeep = true;
            return false;
        }
        frames.push_back({isObject, isObject ? scratch_.members.size() : scratch_.elements.size()});
        return true;
    }

    bool close(Value done) {
        scratch_.frames.pop_back();
        if (scratch_.frames.empty()) {
            result = std::move(done);
            return true;
        }
        return add(std::move(done));
    }

    bool add(Value v) {
        if (scratch_.frames.empty()) {  // a scalar at the top level
            notAContainer = true;
            return false;
        }
        if (scratch_.frames.back().isObject) {
            scratch_.members.back().second = std::move(v);
        } else {
            scratch_.elements.push_back(std::move(v));
        }
        return true;
    }

    bool checkStrings_;
    ParseScratch& scratch_;
};

// The writer's output: a growable byte buffer written through a raw cursor, so
// that each piece costs one capacity check and a copy.
class OutputBuffer {
public:
    OutputBuffer() { grow(512); }

    /// A cursor with room for at least `n` bytes; hand it back with `commit`.
    char* room(std::size_t n) {
        if (static_cast<std::size_t>(end_ - cursor_) < n) grow(n);
        return cursor_;
    }
    void commit(char* cursor) noexcept { cursor_ = cursor; }
    void push(char c) { *room(1) = c, ++cursor_; }
    void append(std::string_view s) {
        char* p = room(s.size());
        std::memcpy(p, s.data(), s.size());
        cursor_ = p + s.size();
    }
    [[nodiscard]] std::string str() const { return std::string(storage_.get(), cursor_); }

private:
    void grow(std::size_t n) {
        const std::size_t used = static_cast<std::size_t>(cursor_ - storage_.get());
        const auto current = static_cast<std::size_t>(end_ - storage_.get());
        const std::size_t capacity = std::max<std::size_t>(current * 2, used + n);
        std::unique_ptr<char[]> bigger(new char[capacity]);  // left uninitialised: every byte is written before use
        if (used) std::memcpy(bigger.get(), storage_.get(), used);
        storage_ = std::move(bigger);
        cursor_ = storage_.get() + used;
        end_ = storage_.get() + capacity;
    }

    std::unique_ptr<char[]> storage_;
    char* cursor_ = nullptr;
    char* end_ = nullptr;
};

// Walks a Value and writes its JSON text; with Emit false it only checks that
// the Value can be written, producing nothing.
template <bool Emit>
class Emitter {
public:
    explicit Emitter(bool pretty) : pretty_(pretty) {}

    bool value(const Value& v, int depth) {
        switch (v.kind()) {
            case Value::Kind::Null: put("null"); return true;
            case Value::Kind::Boolean: put(*v.boolValue() ? "true" : "false"); return true;
            case Value::Kind::Integer: integer(*v.integerValue()); return true;
            case Value::Kind::Real: return real(*v.realValue());
            case Value::Kind::String: return string(*v.string());
            case Value::Kind::Array: {
                if (depth >= JSONSerialization::maximumDepth) return fail("Too many nested arrays or dictionaries");
                put('[');
                open();
                bool first = true;
                for (const Value& item : *v.array()) {
                    separate(first, depth + 1);
                    if (!value(item, depth + 1)) return false;
                }
                close(depth);
                put(']');
                return true;
            }
            case Value::Kind::Dictionary: {
                if (depth >= JSONSerialization::maximumDepth) return fail("Too many nested arrays or dictionaries");
                put('{');
                open();
                bool first = true;
                for (const auto& [key, member] : *v.dictionary()) {
                    separate(first, depth + 1);
                    if (!string(key)) return false;
                    put(pretty_ ? std::string_view(" : ") : std::string_view(":"));
                    if (!value(member, depth + 1)) return false;
                }
                close(depth);
                put('}');
                return true;
            }
            case Value::Kind::Nil: return fail("Invalid type in JSON write (nil)");
            case Value::Kind::Data: return fail("Invalid type in JSON write (NSData)");
            case Value::Kind::Date: return fail("Invalid type in JSON write (NSDate)");
            case Value::Kind::Object: return fail("Invalid type in JSON write (" + (*v.object())->className() + ")");
        }
        return fail("Invalid type in JSON write");
    }

    OutputBuffer out;
    std::string why;

private:
    void put(char c) {
        if constexpr (Emit) out.push(c);
    }
    void put(std::string_view s) {
        if constexpr (Emit) out.append(s);
    }

    bool fail(std::string text) {
        why = std::move(text);
        return false;
    }

    void pad(int depth) {
        if constexpr (Emit) {
            const auto n = static_cast<std::size_t>(depth) * 2;
            char* p = out.room(n);
            for (std::size_t i = 0; i < n; ++i) p[i] = ' ';
            out.commit(p + n);
        }
    }

    // The platform's pretty form opens every collection with a line break and
    // closes it with another, so an empty one reads "{\n\n}".
    void open() {
        if (pretty_) put('\n');
    }
    void separate(bool& first, int depth) {
        if (!first) put(pretty_ ? std::string_view(",\n") : std::string_view(","));
        first = false;
        if (pretty_) pad(depth);
    }
    void close(int depth) {
        if (!pretty_) return;
        put('\n');
        pad(depth);
    }

    void integer(std::int64_t i) {
        if constexpr (Emit) {
            char* p = out.room(24);
            out.commit(std::to_chars(p, p + 24, i).ptr);
        }
    }

    // Integral values print without a fraction ("5", not "5.0"), others in the
    // shortest form that reads back to the same double ("0.1", "1e+21").
    bool real(double d) {
        if (!std::isfinite(d)) return fail("Invalid number value (infinite or NaN) in JSON write");
        if (d == std::floor(d) && std::fabs(d) < 1e15) {
            integer(static_cast<std::int64_t>(d));
            return true;
        }
        if constexpr (Emit) {
            char* p = out.room(32);
            out.commit(std::to_chars(p, p + 32, d).ptr);
        }
        return true;
    }

    // What each byte needs inside a JSON string: 0 copies as it is, 1 takes a
    // backslash escape, 2 starts a multi-byte UTF-8 sequence to be checked.
    static constexpr std::array<std::uint8_t, 256> kStringClass = [] {
        std::array<std::uint8_t, 256> t{};
        for (int c = 0; c < 0x20; ++c) t[c] = 1;
        t['"'] = t['\\'] = t['/'] = 1;
        for (int c = 0x80; c < 256; ++c) t[c] = 2;
        return t;
    }();

    bool string(std::string_view s) {
        static constexpr char hex[] = "0123456789abcdef";
        const auto* p = reinterpret_cast<const unsigned char*>(s.data());
        const auto* const end = p + s.size();
        if constexpr (!Emit) {
            for (; p < end; ++p) {
                if (kStringClass[*p] != 2) continue;
                const std::size_t length = UTF8::sequenceLength(
                    std::string_view(reinterpret_cast<const char*>(p), static_cast<std::size_t>(end - p)));
                if (length == 0) return fail("Invalid UTF-8 string in JSON write");
                p += length - 1;
            }
            return true;
        } else {
            // Worst case: every byte a six-byte \u escape, plus the quotes.
            char* w = out.room(s.size() * 6 + 2);
            *w++ = '"';
            while (p < end) {
                const unsigned char c = *p;
                const std::uint8_t cls = kStringClass[c];
                if (cls == 0) {
                    *w++ = static_cast<char>(c);
                    ++p;
                    continue;
                }
                if (cls == 2) {
                    const std::size_t length = UTF8::sequenceLength(
                        std::string_view(reinterpret_cast<const char*>(p), static_cast<std::size_t>(end - p)));
                    if (length == 0) return fail("Invalid UTF-8 string in JSON write");
                    std::memcpy(w, p, length);
                    w += length;
                    p += length;
                    continue;
                }
                *w++ = '\\';
                switch (c) {
                    case '"': *w++ = '"'; break;
                    case '\\': *w++ = '\\'; break;
                    case '/': *w++ = '/'; break;
                    case '\n': *w++ = 'n'; break;
                    case '\r': *w++ = 'r'; break;
                    case '\t': *w++ = 't'; break;
                    case '\b': *w++ = 'b'; break;
                    case '\f': *w++ = 'f'; break;
                    default:
                        *w++ = 'u';
                        *w++ = '0';
                        *w++ = '0';
                        *w++ = hex[c >> 4];
                        *w++ = hex[c & 0xF];
                }
                ++p;
            }
            *w++ = '"';
            out.commit(w);
            return true;
        }
    }

    bool pretty_;
};

}  // namespace

std::optional<Value> JSONSerialization::parse(std::string_view bytes, std::shared_ptr<Error>* error) {
    std::size_t skipped = 0;
    if (bytes.substr(0, 3) == "\xEF\xBB\xBF") skipped = 3;
    const std::string_view text = bytes.substr(skipped);

    // The bytes wellFormed() looks for come from a \u escape or stand in the text
    // as they are: text with neither needs no check per string.
    ValueBuilder builder(text.find("\\u") != std::string_view::npos ||
                         text.find('\xED') != std::string_view::npos);
    // The reader keeps its state stack between parses: a parse of a document no
    // deeper than one before it allocates none. Each parse starts it afresh.
    thread_local rapidjson::Reader reader;
    rapidjson::MemoryStream stream(text.data(), text.size());
    constexpr unsigned flags =
        rapidjson::kParseIterativeFlag | rapidjson::kParseNumbersAsStringsFlag | rapidjson::kParseValidateEncodingFlag;
    const rapidjson::ParseResult ok = reader.Parse<flags>(stream, builder);
    // RapidJSON takes a NUL byte for the end of the text; whatever follows one is garbage.
    if (ok && builder.result && stream.Tell() == text.size()) return std::move(builder.result);

    if (error) {
        std::string description;
        std::size_t offset = skipped + (ok ? stream.Tell() : ok.Offset());
        if (ok) {
            description = "Garbage at end around character " + std::to_string(offset) + ".";
        } else if (builder.notAContainer) {
            description = "JSON text did not start with array or object and option to allow fragments not set.";
            offset = skipped;
        } else if (builder.loneSurrogate) {
            description = "Unpaired surrogate in string escape around character " + std::to_string(offset) + ".";
        } else if (builder.numberTooBig) {
            description = "Number too big to be stored in double around character " + std::to_string(offset) + ".";
        } else if (builder.tooDeep) {
            description = "Too many nested arrays or dictionaries around character " + std::to_string(offset) + ".";
        } else {
            description = std::string(rapidjson::GetParseError_En(ok.Code())) + " (RapidJSON error " +
                          std::to_string(static_cast<int>(ok.Code())) + ") around character " +
                          std::to_string(offset) + ".";
        }
        *error = makeError(readErrorCode, std::move(description), offset);
    }
    return std::nullopt;
}

std::optional<std::string> JSONSerialization::write(const Value& value, bool pretty, std::shared_ptr<Error>* error) {
    if (!value.isArray() && !value.isDictionary()) {
        if (error) *error = makeError(writeErrorCode, "Invalid top-level type in JSON write");
        return std::nullopt;
    }
    Emitter<true> emitter(pretty);
    if (!emitter.value(value, 0)) {
        if (error) *error = makeError(writeErrorCode, std::move(emitter.why));
        return std::nullopt;
    }
    return emitter.out.str();
}

bool JSONSerialization::isValidJSONObject(const Value& value) {
    if (!value.isArray() && !value.isDictionary()) return false;
    Emitter<false> checker(false);
    return checker.value(value, 0);
}

}  // namespace krcommon::platform

#include <krcommon/platform/core/Value.h>

#include <cxxabi.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <span>
#include <typeinfo>

namespace krcommon::platform {

using namespace std::string_view_literals;

// ---------------------------------------------------------------- Object

Object::~Object() = default;

std::string Object::className() const {
    const char* mangled = typeid(*this).name();
    int status = 0;
    std::unique_ptr<char, void (*)(void*)> demangled(abi::__cxa_demangle(mangled, nullptr, nullptr, &status),
                                                     std::free);
    std::string name = (status == 0 && demangled) ? demangled.get() : mangled;
    if (auto pos = name.rfind("::"); pos != std::string::npos) name.erase(0, pos + 2);
    return name;
}

std::string Object::description() const {
    char address[32];
    std::snprintf(address, sizeof address, "%p", static_cast<const void*>(this));
    std::string text = "<";
    text.append(className()).append(": ").append(address).push_back('>');
    return text;
}

// ---------------------------------------------------------------- Dictionary

namespace {

constexpr std::size_t kIndexThreshold = 8;

std::size_t hashKey(std::string_view key) noexcept { return std::hash<std::string_view>{}(key); }

}  // namespace

Dictionary::Dictionary() = default;
Dictionary::Dictionary(const Dictionary&) = default;
Dictionary::Dictionary(Dictionary&&) noexcept = default;
Dictionary& Dictionary::operator=(const Dictionary&) = default;
Dictionary& Dictionary::operator=(Dictionary&&) noexcept = default;
Dictionary::~Dictionary() = default;

Dictionary::Dictionary(std::initializer_list<Entry> entries) {
    reserve(entries.size());
    for (const auto& e : entries) set(e.first, e.second);
}

Dictionary::Dictionary(std::vector<Entry> entries) : entries_(std::move(entries)) {
    // Keys usually differ: check that, and only replay the entries through set()
    // when one repeats.
    bool repeats = false;
    if (entries_.size() < kIndexThreshold) {
        for (std::size_t i = 1; i < entries_.size() && !repeats; ++i) {
            for (std::size_t j = 0; j < i && !repeats; ++j) repeats = entries_[i].first == entries_[j].first;
        }
    } else {
        rebuildIndex();
        for (std::size_t i = 0; i < entries_.size() && !repeats; ++i) {
            repeats = slotOf(entries_[i].first) != static_cast<std::ptrdiff_t>(i);
        }
    }
    if (!repeats) return;
    std::vector<Entry> given = std::move(entries_);
    clear();
    reserve(given.size());
    for (auto& [key, value] : given) set(std::move(key), std::move(value));
}

std::ptrdiff_t Dictionary::slotOf(std::string_view key) const noexcept {
    if (index_.empty()) {
        for (std::size_t i = 0; i < entries_.size(); ++i)
            if (entries_[i].first == key) return static_cast<std::ptrdiff_t>(i);
        return -1;
    }
    const std::size_t mask = index_.size() - 1;
    for (std::size_t slot = hashKey(key) & mask;; slot = (slot + 1) & mask) {
        const std::uint32_t stored = index_[slot];
        if (stored == 0) return -1;
        if (entries_[stored - 1].first == key) return static_cast<std::ptrdiff_t>(stored - 1);
    }
}

const Value* Dictionary::find(std::string_view key) const noexcept {
    const auto i = slotOf(key);
    return i < 0 ? nullptr : &entries_[static_cast<std::size_t>(i)].second;
}

Value* Dictionary::find(std::string_view key) noexcept {
    const auto i = slotOf(key);
    return i < 0 ? nullptr : &entries_[static_cast<std::size_t>(i)].second;
}

const Value& Dictionary::operator[](std::string_view key) const noexcept {
    const Value* v = find(key);
    return v ? *v : Value::nil();
}

void Dictionary::indexInsert(std::uint32_t position) {
    const std::size_t mask = index_.size() - 1;
    std::size_t slot = hashKey(entries_[position].first) & mask;
    while (index_[slot] != 0) slot = (slot + 1) & mask;
    index_[slot] = position + 1;
}

void Dictionary::rebuildIndex() {
    if (entries_.size() < kIndexThreshold) {
        index_.clear();
        return;
    }
    std::size_t capacity = 16;
    while (capacity < entries_.size() * 2) capacity <<= 1;
    index_.assign(capacity, 0);
    for (std::uint32_t i = 0; i < entries_.size(); ++i) indexInsert(i);
}

void Dictionary::set(std::string key, Value value) {
    if (Value* existing = find(key)) {
        *existing = std::move(value);
        return;
    }
    entries_.emplace_back(std::move(key), std::move(value));
    if (entries_.size() < kIndexThreshold) return;
    if (index_.size() < entries_.size() * 2) {
        rebuildIndex();
    } else {
        indexInsert(static_cast<std::uint32_t>(entries_.size() - 1));
    }
}

bool Dictionary::remove(std::string_view key) {
    const auto i = slotOf(key);
    if (i < 0) return false;
    entries_.erase(entries_.begin() + i);
    rebuildIndex();
    return true;
}

void Dictionary::clear() noexcept {
    entries_.clear();
    index_.clear();
}

void Dictionary::reserve(std::size_t n) { entries_.reserve(n); }

std::vector<std::string> Dictionary::keys() const {
    std::vector<std::string> out;
    out.reserve(entries_.size());
    for (const auto& e : entries_) out.push_back(e.first);
    return out;
}

bool operator==(const Dictionary& a, const Dictionary& b) {
    if (a.size() != b.size()) return false;
    for (const auto& [key, value] : a) {
        const Value* other = b.find(key);
        if (!other || !(*other == value)) return false;
    }
    return true;
}

// ---------------------------------------------------------------- Value

const Value& Value::nil() noexcept {
    static const Value instance;
    return instance;
}

bool Value::isNumber() const noexcept {
    const Kind k = kind();
    return k == Kind::Boolean || k == Kind::Integer || k == Kind::Real;
}

std::optional<std::int64_t> Value::integerValue() const noexcept {
    switch (kind()) {
        case Kind::Boolean: return std::get<bool>(storage_) ? 1 : 0;
        case Kind::Integer: return std::get<std::int64_t>(storage_);
        case Kind::Real: {
            const double d = std::get<double>(storage_);
            if (!std::isfinite(d) || d >= 9.2233720368547758e18 || d < -9.2233720368547758e18) return std::nullopt;
            return static_cast<std::int64_t>(d);
        }
        default: return std::nullopt;
    }
}

std::optional<double> Value::realValue() const noexcept {
    switch (kind()) {
        case Kind::Boolean: return std::get<bool>(storage_) ? 1.0 : 0.0;
        case Kind::Integer: return static_cast<double>(std::get<std::int64_t>(storage_));
        case Kind::Real: return std::get<double>(storage_);
        default: return std::nullopt;
    }
}

std::optional<bool> Value::boolValue() const noexcept {
    switch (kind()) {
        case Kind::Boolean: return std::get<bool>(storage_);
        case Kind::Integer: return std::get<std::int64_t>(storage_) != 0;
        case Kind::Real: return std::get<double>(storage_) != 0.0;
        default: return std::nullopt;
    }
}

const Value& Value::operator[](std::string_view key) const noexcept {
    const auto* d = dictionary();
    return d ? (*d)[key] : nil();
}

std::string numberDescription(double d) {
    if (std::isnan(d)) return "nan";
    if (std::isinf(d)) return d < 0 ? "-inf" : "inf";
    // Whole numbers print as integers; a negative zero keeps its sign, as printf's does.
    if (d == 0) return std::signbit(d) ? "-0" : "0";
    if (d == std::floor(d) && std::fabs(d) < 1e15) {
        char buf[32];
        auto [end, ec] = std::to_chars(buf, buf + sizeof buf, static_cast<std::int64_t>(d));
        (void)ec;
        return std::string(buf, end);
    }
    char buf[64];
    auto [end, ec] = std::to_chars(buf, buf + sizeof buf, d);
    (void)ec;
    return std::string(buf, end);
}

namespace {

void appendIndent(std::string& out, int depth) {
    static constexpr std::string_view spaces = "                                                                ";
    const auto count = static_cast<std::size_t>(depth) * 4;
    if (count <= spaces.size()) out.append(spaces.data(), count);
    else out.append(count, ' ');
}

// The characters the old-style property-list syntax allows in an unquoted string.
constexpr auto plainCharacters = [] {
    std::array<bool, 256> plain{};
    for (int c = 0; c < 256; ++c) {
        plain[static_cast<std::size_t>(c)] = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                                             (c >= '0' && c <= '9') || c == '_' || c == '$' || c == '/' || c == ':' ||
                                             c == '.' || c == '-';
    }
    return plain;
}();

// Strings inside collections print bare when they consist only of characters
// the old-style property-list syntax allows unquoted; otherwise quoted with
// backslash escapes and \Uxxxx for non-ASCII UTF-16 units.
bool needsQuotes(std::string_view s) {
    if (s.empty()) return true;
    for (unsigned char c : s) {
        if (!plainCharacters[c]) return true;
    }
    return false;
}

void appendQuoted(std::string& out, std::string_view s) {
    out.push_back('"');
    for (std::size_t i = 0; i < s.size();) {
        const auto c = static_cast<unsigned char>(s[i]);
        if (c < 0x80) {
            switch (c) {
                case '"': out += "\\\""; break;
                case '\\': out += "\\\\"; break;
                case '\n': out += "\\n"; break;
                case '\t': out += "\\t"; break;
                case '\r': out += "\\r"; break;
                default:
                    if (c < 0x20) {
                        char buf[8];
                        std::snprintf(buf, sizeof buf, "\\%03o", c);
                        out += buf;
                    } else {
                        // A run of printable ASCII goes in one piece.
                        std::size_t end = i + 1;
                        while (end < s.size()) {
                            const auto next = static_cast<unsigned char>(s[end]);
                            if (next < 0x20 || next >= 0x80 || next == '"' || next == '\\') break;
                            ++end;
                        }
                        out.append(s.data() + i, end - i);
                        i = end;
                        continue;
                    }
            }
            ++i;
            continue;
        }
        // Decode one UTF-8 sequence; malformed bytes print as U+FFFD.
        std::uint32_t cp = 0xFFFD;
        std::size_t len = 1;
        if ((c & 0xE0) == 0xC0 && i + 1 < s.size()) {
            cp = ((c & 0x1Fu) << 6) | (static_cast<unsigned char>(s[i + 1]) & 0x3Fu);
            len = 2;
        } else if ((c & 0xF0) == 0xE0 && i + 2 < s.size()) {
            cp = ((c & 0x0Fu) << 12) | ((static_cast<unsigned char>(s[i + 1]) & 0x3Fu) << 6) |
                 (static_cast<unsigned char>(s[i + 2]) & 0x3Fu);
            len = 3;
        } else if ((c & 0xF8) == 0xF0 && i + 3 < s.size()) {
            cp = ((c & 0x07u) << 18) | ((static_cast<unsigned char>(s[i + 1]) & 0x3Fu) << 12) |
                 ((static_cast<unsigned char>(s[i + 2]) & 0x3Fu) << 6) | (static_cast<unsigned char>(s[i + 3]) & 0x3Fu);
            len = 4;
        }
        char buf[16];
        if (cp >= 0x10000) {
            cp -= 0x10000;
            std::snprintf(buf, sizeof buf, "\\U%04x\\U%04x", 0xD800 + (cp >> 10), 0xDC00 + (cp & 0x3FF));
        } else {
            std::snprintf(buf, sizeof buf, "\\U%04x", cp);
        }
        out += buf;
        i += len;
    }
    out.push_back('"');
}

void appendData(std::string& out, const Data& d) {
    static constexpr char hex[] = "0123456789abcdef";
    out += "{length = " + std::to_string(d.size()) + ", bytes = 0x";
    auto put = [&](std::size_t from, std::size_t to) {
        for (std::size_t i = from; i < to; ++i) {
            if (i != from && (i - from) % 4 == 0) out.push_back(' ');
            out.push_back(hex[d[i] >> 4]);
            out.push_back(hex[d[i] & 0xF]);
        }
    };
    if (d.size() <= 24) {
        put(0, d.size());
    } else {
        put(0, 16);
        out += " ... ";
        put(d.size() - 8, d.size());
        out.push_back(' ');
    }
    out.push_back('}');
}

void appendDate(std::string& out, Date date) {
    const double whole = std::floor(date.timeIntervalSince1970);
    // Beyond about two billion years a calendar date has no year to print (and
    // a NaN none at all): such a date is shown by its interval instead.
    constexpr double calendarLimit = 6.0e16;
    std::tm tm{};
    const auto t = std::isfinite(whole) && std::fabs(whole) < calendarLimit ? static_cast<std::time_t>(whole) : 0;
    if (t != whole || !gmtime_r(&t, &tm)) {
        out += numberDescription(date.timeIntervalSince1970);
        out += " seconds since 1970-01-01 00:00:00 +0000";
        return;
    }
    char buf[64];
    std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S +0000", &tm);
    out += buf;
}

}  // namespace

void Value::appendDescription(std::string& out, int indent) const {
    switch (kind()) {
        case Kind::Nil: out += "(null)"sv; return;
        case Kind::Null: out += "<null>"sv; return;
        case Kind::Boolean: out += std::get<bool>(storage_) ? '1' : '0'; return;
        case Kind::Integer: {
            char buf[24];
            auto [end, ec] = std::to_chars(buf, buf + sizeof buf, std::get<std::int64_t>(storage_));
            (void)ec;
            out.append(buf, end);
            return;
        }
        case Kind::Real: out += numberDescription(std::get<double>(storage_)); return;
        case Kind::String: {
            const auto& s = std::get<std::string>(storage_);
            // A string prints as itself at the top level, quoted inside a collection.
            if (indent > 0 && needsQuotes(s)) appendQuoted(out, s);
            else out += s;
            return;
        }
        case Kind::Data: appendData(out, std::get<Data>(storage_)); return;
        case Kind::Date: appendDate(out, std::get<Date>(storage_)); return;
        case Kind::Array: {
            const auto& a = std::get<Array>(storage_);
            out += "(\n"sv;
            for (std::size_t i = 0; i < a.size(); ++i) {
                appendIndent(out, indent + 1);
                // As after " = " in a dictionary, a nested collection is indented once more.
                if (a[i].isArray() || a[i].isDictionary()) appendIndent(out, indent + 1);
                a[i].appendDescription(out, indent + 1);
                if (i + 1 < a.size()) out.push_back(',');
                out.push_back('\n');
            }
            appendIndent(out, indent);
            out.push_back(')');
            return;
        }
        case Kind::Dictionary: {
            // The platform prints dictionaries with their keys sorted.
            const auto& d = std::get<Dictionary>(storage_);
            // Small dictionaries, the common case, sort on the stack.
            const Dictionary::Entry* onStack[16];
            std::vector<const Dictionary::Entry*> onHeap;
            const Dictionary::Entry** sorted = onStack;
            if (d.size() > std::size(onStack)) {
                onHeap.resize(d.size());
                sorted = onHeap.data();
            }
            std::size_t count = 0;
            for (const auto& e : d) sorted[count++] = &e;
            std::sort(sorted, sorted + count, [](auto* a, auto* b) { return a->first < b->first; });
            out += "{\n"sv;
            for (const auto* e : std::span(sorted, count)) {
                appendIndent(out, indent + 1);
                if (needsQuotes(e->first)) appendQuoted(out, e->first);
                else out += e->first;
                out += " = "sv;
                // The platform indents a nested collection once more after " = ".
                if (e->second.isArray() || e->second.isDictionary()) appendIndent(out, indent + 1);
                e->second.appendDescription(out, indent + 1);
                out += ";\n"sv;
            }
            appendIndent(out, indent);
            out.push_back('}');
            return;
        }
        case Kind::Object: out += std::get<std::shared_ptr<Object>>(storage_)->description(); return;
    }
}

std::string Value::description() const {
    if (const auto* s = string()) return *s;
    std::string out;
    out.reserve(256);
    appendDescription(out, 0);
    return out;
}

bool operator==(const Value& a, const Value& b) {
    if (a.isNumber() && b.isNumber()) {
        if (a.kind() == Value::Kind::Real || b.kind() == Value::Kind::Real) return *a.realValue() == *b.realValue();
        return *a.integerValue() == *b.integerValue();
    }
    if (a.kind() != b.kind()) return false;
    if (a.isObject()) return *a.object() == *b.object();
    return a.storage_ == b.storage_;
}

}  // namespace krcommon::platform

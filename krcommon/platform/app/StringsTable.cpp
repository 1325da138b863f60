#include <krcommon/platform/app/StringsTable.h>

#include <krcommon/platform/app/SystemLog.h>
#include <krcommon/platform/io/FileManager.h>
#include <krcommon/platform/io/PropertyList.h>
#include <krcommon/platform/io/UTF8.h>

#include <cerrno>
#include <cstdint>
#include <mutex>
#include <unordered_set>

namespace krcommon::platform {

namespace {

void appendUTF8(std::string& out, char32_t c) {
    if (c < 0x80) {
        out.push_back(static_cast<char>(c));
    } else if (c < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (c >> 6)));
        out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    } else if (c < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (c >> 12)));
        out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (c >> 18)));
        out.push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    }
}

bool isHighSurrogate(char32_t u) { return u >= 0xD800 && u <= 0xDBFF; }
bool isLowSurrogate(char32_t u) { return u >= 0xDC00 && u <= 0xDFFF; }

// UTF-16 bytes (no byte order mark) to UTF-8; nullopt for an odd length or an
// unpaired surrogate.
std::optional<std::string> utf16ToUTF8(std::string_view bytes, bool bigEndian) {
    if (bytes.size() % 2 != 0) return std::nullopt;
    std::string out;
    out.reserve(bytes.size());
    auto unitAt = [&](std::size_t i) -> char32_t {
        const auto b0 = static_cast<unsigned char>(bytes[i]);
        const auto b1 = static_cast<unsigned char>(bytes[i + 1]);
        return bigEndian ? char32_t(b0 << 8 | b1) : char32_t(b1 << 8 | b0);
    };
    for (std::size_t i = 0; i < bytes.size(); i += 2) {
        char32_t u = unitAt(i);
        if (isHighSurrogate(u)) {
            if (i + 2 >= bytes.size()) return std::nullopt;
            const char32_t low = unitAt(i + 2);
            if (!isLowSurrogate(low)) return std::nullopt;
            u = 0x10000 + ((u - 0xD800) << 10) + (low - 0xDC00);
            i += 2;
        } else if (isLowSurrogate(u)) {
            return std::nullopt;
        }
        appendUTF8(out, u);
    }
    return out;
}

// The text of a text table as UTF-8, whatever its encoding on disk.
std::optional<std::string> decodeText(std::string_view bytes) {
    auto starts = [&](std::string_view prefix) { return bytes.substr(0, prefix.size()) == prefix; };
    if (starts("\xFE\xFF")) return utf16ToUTF8(bytes.substr(2), true);
    if (starts("\xFF\xFE")) return utf16ToUTF8(bytes.substr(2), false);
    if (starts("\xEF\xBB\xBF")) bytes.remove_prefix(3);
    // Without a byte order mark, UTF-16 shows itself by the NUL byte of its
    // first character, which in a table is always ASCII (a quote, a comment or
    // white space).
    if (bytes.size() >= 2 && bytes.size() % 2 == 0) {
        if (bytes[0] == '\0' && bytes[1] != '\0') return utf16ToUTF8(bytes, true);
        if (bytes[0] != '\0' && bytes[1] == '\0') return utf16ToUTF8(bytes, false);
    }
    if (!UTF8::isValid(bytes)) return std::nullopt;
    return std::string(bytes);
}

// Recursive-descent reader of the text form over valid UTF-8.
class TextParser {
public:
    explicit TextParser(std::string_view text) : text_(text) {}

    std::optional<StringsTable::Map> parse() {
        StringsTable::Map map;
        if (!skipSpace()) return std::nullopt;
        const bool braced = peek('{');
        if (braced) ++pos_;
        for (;;) {
            if (!skipSpace()) return std::nullopt;
            if (atEnd()) {
                if (braced) return std::nullopt;
                return map;
            }
            if (braced && peek('}')) {
                ++pos_;
                if (!skipSpace() || !atEnd()) return std::nullopt;
                return map;
            }
            auto key = string();
            if (!key || !skipSpace()) return std::nullopt;
            if (peek(';')) {
                ++pos_;
                std::string value = *key;
                map.insert_or_assign(std::move(*key), std::move(value));
                continue;
            }
            if (!peek('=')) return std::nullopt;
            ++pos_;
            if (!skipSpace()) return std::nullopt;
            auto value = string();
            if (!value || !skipSpace() || !peek(';')) return std::nullopt;
            ++pos_;
            map.insert_or_assign(std::move(*key), std::move(*value));
        }
    }

private:
    [[nodiscard]] bool atEnd() const { return pos_ >= text_.size(); }
    [[nodiscard]] bool peek(char c) const { return pos_ < text_.size() && text_[pos_] == c; }

    // Skips white space and comments; false for an unterminated block comment.
    bool skipSpace() {
        while (!atEnd()) {
            const char c = text_[pos_];
            if (c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v') {
                ++pos_;
            } else if (c == '/' && pos_ + 1 < text_.size() && text_[pos_ + 1] == '*') {
                const auto end = text_.find("*/", pos_ + 2);
                if (end == std::string_view::npos) return false;
                pos_ = end + 2;
            } else if (c == '/' && pos_ + 1 < text_.size() && text_[pos_ + 1] == '/') {
                const auto end = text_.find('\n', pos_ + 2);
                pos_ = end == std::string_view::npos ? text_.size() : end + 1;
            } else {
                return true;
            }
        }
        return true;
    }

    static bool isWordChar(char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '$' ||
               c == '+' || c == '/' || c == ':' || c == '.' || c == '-';
    }

    std::optional<std::string> string() {
        if (atEnd()) return std::nullopt;
        const char c = text_[pos_];
        if (c == '"' || c == '\'') return quoted(c);
        const std::size_t start = pos_;
        while (!atEnd() && isWordChar(text_[pos_])) ++pos_;
        if (pos_ == start) return std::nullopt;
        return std::string(text_.substr(start, pos_ - start));
    }

    static int hexDigit(char c) {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        if (c >= 'A' && c <= 'F') return c - 'A' + 10;
        return -1;
    }

    // After "\U" or "\u": up to four hex digits; nullopt when there is none.
    std::optional<char32_t> hexUnit() {
        char32_t unit = 0;
        int digits = 0;
        while (digits < 4 && !atEnd()) {
            const int d = hexDigit(text_[pos_]);
            if (d < 0) break;
            unit = unit << 4 | static_cast<char32_t>(d);
            ++pos_;
            ++digits;
        }
        if (digits == 0) return std::nullopt;
        return unit;
    }

    std::optional<std::string> quoted(char quote) {
        ++pos_;
        std::string out;
        for (;;) {
            if (atEnd()) return std::nullopt;
            const char c = text_[pos_++];
            if (c == quote) return out;
            if (c != '\\') {
                out.push_back(c);
                continue;
            }
            if (atEnd()) return std::nullopt;
            const char e = text_[pos_++];
            switch (e) {
                case 'a': out.push_back('\a'); break;
                case 'b': out.push_back('\b'); break;
                case 'f': out.push_back('\f'); break;
                case 'n': out.push_back('\n'); break;
                case 'r': out.push_back('\r'); break;
                case 't': out.push_back('\t'); break;
                case 'v': out.push_back('\v'); break;
                case 'U':
                case 'u': unicodeEscape(out, e); break;
                default:
                    if (e >= '0' && e <= '7') {
                        char32_t value = static_cast<char32_t>(e - '0');
                        for (int i = 0; i < 2 && !atEnd() && text_[pos_] >= '0' && text_[pos_] <= '7'; ++i)
                            value = value << 3 | static_cast<char32_t>(text_[pos_++] - '0');
                        appendUTF8(out, value);
                    } else {
                        // Quotes, the backslash and any other character stand for themselves.
                        out.push_back(e);
                    }
            }
        }
    }

    void unicodeEscape(std::string& out, char letter) {
        const auto unit = hexUnit();
        if (!unit) {
            out.push_back(letter);
            return;
        }
        char32_t c = *unit;
        if (isHighSurrogate(c)) {
            // A pair written as two escapes makes one character.
            const std::size_t mark = pos_;
            if (pos_ + 1 < text_.size() && text_[pos_] == '\\' && (text_[pos_ + 1] == 'U' || text_[pos_ + 1] == 'u')) {
                pos_ += 2;
                const auto low = hexUnit();
                if (low && isLowSurrogate(*low)) {
                    appendUTF8(out, 0x10000 + ((c - 0xD800) << 10) + (*low - 0xDC00));
                    return;
                }
                pos_ = mark;
            }
            c = 0xFFFD;
        } else if (isLowSurrogate(c)) {
            c = 0xFFFD;
        }
        appendUTF8(out, c);
    }

    std::string_view text_;
    std::size_t pos_ = 0;
};

bool isPropertyList(std::string_view bytes) {
    if (bytes.substr(0, 8) == "bplist00") return true;
    if (bytes.substr(0, 3) == "\xEF\xBB\xBF") bytes.remove_prefix(3);
    while (!bytes.empty() && (bytes.front() == ' ' || bytes.front() == '\t' || bytes.front() == '\n' ||
                              bytes.front() == '\r'))
        bytes.remove_prefix(1);
    return bytes.substr(0, 5) == "<?xml" || bytes.substr(0, 6) == "<plist" || bytes.substr(0, 9) == "<!DOCTYPE";
}

std::optional<StringsTable::Map> fromPropertyList(std::string_view bytes) {
    auto root = PropertyList::parse(bytes);
    if (!root || !root->isDictionary()) return std::nullopt;
    StringsTable::Map map;
    for (const auto& [key, value] : *root->dictionary()) {
        if (const auto* s = value.string()) map.insert_or_assign(key, *s);
    }
    return map;
}

}  // namespace

std::optional<StringsTable::Map> StringsTable::parse(std::string_view bytes) {
    if (isPropertyList(bytes)) return fromPropertyList(bytes);
    auto text = decodeText(bytes);
    if (!text) return std::nullopt;
    return TextParser(*text).parse();
}

namespace {

// A broken table makes lookups fall back to another language or to the key;
// a line says which file was skipped, once per file for the process's life.
bool firstReportOf(const std::string& path) {
    static auto* mutex = new std::mutex;  // both usable during exit
    static auto* reported = new std::unordered_set<std::string>;
    std::lock_guard lock(*mutex);
    return reported->insert(path).second;
}

}  // namespace

std::optional<StringsTable::Map> StringsTable::readFile(const std::string& path) {
    std::shared_ptr<Error> error;
    auto bytes = FileManager::contentsAtPath(path, &error);
    if (!bytes) {
        if (error && error->code() != ENOENT && firstReportOf(path))
            SystemLog::log("[i18n] strings table %@ cannot be read, skipped: %@", path, error->localizedDescription());
        return std::nullopt;
    }
    auto table = parse(std::string_view(reinterpret_cast<const char*>(bytes->data()), bytes->size()));
    if (!table && firstReportOf(path)) SystemLog::log("[i18n] strings table %@ cannot be parsed, skipped", path);
    return table;
}

}  // namespace krcommon::platform

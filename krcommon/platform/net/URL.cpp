#include <krcommon/platform/net/URL.h>

#include <krcommon/platform/net/PercentEncoding.h>

#include <array>
#include <cstdint>
#include <system_error>

namespace krcommon::platform {

namespace {

// Character classes of RFC 3986, one bit each, looked up by byte.
enum : std::uint8_t {
    kUnreserved = 1,  // ALPHA DIGIT - . _ ~
    kSubDelim = 2,    // ! $ & ' ( ) * + , ; =
    kSchemeTail = 4,  // ALPHA DIGIT + - .
    kHex = 8,
    kAlpha = 16,
    kDigit = 32,
    kPathExtra = 64,  // ":" "@": with unreserved and sub-delims, what a path segment holds
    kQueryExtra = 128,  // "/" "?": with the path characters, what a query or fragment holds
};

constexpr std::array<std::uint8_t, 256> makeClasses() {
    std::array<std::uint8_t, 256> t{};
    for (int c = 'a'; c <= 'z'; ++c) t[c] |= kUnreserved | kSchemeTail | kAlpha;
    for (int c = 'A'; c <= 'Z'; ++c) t[c] |= kUnreserved | kSchemeTail | kAlpha;
    for (int c = '0'; c <= '9'; ++c) t[c] |= kUnreserved | kSchemeTail | kHex | kDigit;
    for (int c = 'a'; c <= 'f'; ++c) t[c] |= kHex;
    for (int c = 'A'; c <= 'F'; ++c) t[c] |= kHex;
    for (unsigned char c : std::string_view("-._~")) t[c] |= kUnreserved;
    for (unsigned char c : std::string_view("+-.")) t[c] |= kSchemeTail;
    for (unsigned char c : std::string_view("!$&'()*+,;=")) t[c] |= kSubDelim;
    t[':'] |= kPathExtra;
    t['@'] |= kPathExtra;
    t['/'] |= kQueryExtra;
    t['?'] |= kQueryExtra;
    return t;
}

constexpr auto kClasses = makeClasses();

constexpr bool is(char c, std::uint8_t cls) noexcept { return (kClasses[static_cast<unsigned char>(c)] & cls) != 0; }

constexpr int hexValue(char c) noexcept {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Whether s[i] starts a valid escape: "%" and two hex digits.
bool escapeAt(std::string_view s, std::size_t i) noexcept {
    return i + 2 < s.size() && is(s[i + 1], kHex) && is(s[i + 2], kHex);
}

// Advances `i` over characters of class `cls` (plus escapes) and answers the
// stop position, or npos when a "%" there is not a valid escape.
std::size_t scan(std::string_view s, std::size_t i, std::uint8_t cls) noexcept {
    while (i < s.size()) {
        const char c = s[i];
        if (is(c, cls)) {
            ++i;
        } else if (c == '%') {
            if (!escapeAt(s, i)) return std::string_view::npos;
            i += 3;
        } else {
            break;
        }
    }
    return i;
}

// dec-octet "." dec-octet "." dec-octet "." dec-octet, no leading zeros.
bool validIPv4(std::string_view s) noexcept {
    int octets = 0;
    std::size_t i = 0;
    while (true) {
        const std::size_t start = i;
        int value = 0;
        while (i < s.size() && is(s[i], kDigit) && i - start < 3) value = value * 10 + (s[i++] - '0');
        const std::size_t digits = i - start;
        if (digits == 0 || value > 255 || (digits > 1 && s[start] == '0')) return false;
        if (++octets == 4) return i == s.size();
        if (i >= s.size() || s[i] != '.') return false;
        ++i;
    }
}

// IPv6address of RFC 3986: eight 16-bit groups, at most one "::" standing for
// one or more zero groups, the last 32 bits optionally in dotted IPv4 form.
bool validIPv6(std::string_view s) noexcept {
    std::size_t i = 0;
    int groups = 0;
    bool elided = false;
    if (s.starts_with("::")) {
        elided = true;
        i = 2;
        if (i == s.size()) return true;
    } else if (s.starts_with(":")) {
        return false;
    }
    while (true) {
        const std::size_t start = i;
        while (i < s.size() && is(s[i], kHex)) ++i;
        if (i < s.size() && s[i] == '.') {
            if (!validIPv4(s.substr(start))) return false;
            groups += 2;
            break;
        }
        if (i == start || i - start > 4) return false;
        ++groups;
        if (i == s.size()) break;
        if (s[i] != ':') return false;
        ++i;
        if (i < s.size() && s[i] == ':') {
            if (elided) return false;
            elided = true;
            ++i;
            if (i == s.size()) break;
        } else if (i == s.size()) {
            return false;
        }
    }
    return elided ? groups <= 7 : groups == 8;
}

// IP-literal contents: IPv6address or IPvFuture ("v" 1*HEXDIG "." 1*( unreserved / sub-delims / ":" )).
bool validIPLiteral(std::string_view inner) noexcept {
    if (!inner.empty() && (inner[0] == 'v' || inner[0] == 'V')) {
        std::size_t i = 1;
        while (i < inner.size() && is(inner[i], kHex)) ++i;
        if (i == 1 || i >= inner.size() || inner[i] != '.' || i + 1 == inner.size()) return false;
        for (char c : inner.substr(i + 1))
            if (!is(c, kUnreserved | kSubDelim) && c != ':') return false;
        return true;
    }
    return validIPv6(inner);
}

// Every byte a path may not carry raw: all but unreserved, sub-delims, ":", "@" and "/".
constexpr PercentEncodeSet kPathEncodeSet = [] {
    PercentEncodeSet set{};
    for (int c = 0; c < 256; ++c)
        set.member[c] = !((kClasses[c] & (kUnreserved | kSubDelim | kPathExtra)) != 0 || c == '/');
    return set;
}();

}  // namespace

std::shared_ptr<URL> URL::URLWithString(std::string_view text) {
    URL url;
    url.text_.assign(text);
    if (!url.parse()) return nullptr;
    return std::make_shared<URL>(std::move(url));  // one allocation for the object and its count
}

std::shared_ptr<URL> URL::fileURLWithPath(const std::filesystem::path& path) {
    if (path.empty()) return nullptr;
    std::error_code ec;
    std::filesystem::path absolute = path;
    if (!absolute.is_absolute()) {
        absolute = std::filesystem::absolute(path, ec);
        if (ec) return nullptr;
    }
    const std::string& native = absolute.native();
    std::string text = "file://";
    text.reserve(text.size() + native.size() + 1);
    appendPercentEncoded(text, native, kPathEncodeSet);
    if (!native.ends_with('/') && std::filesystem::is_directory(absolute, ec)) text.push_back('/');
    return URLWithString(text);
}

// One pass, left to right, following the RFC 3986 grammar:
//   URI-reference = [ scheme ":" ] [ "//" authority ] path [ "?" query ] [ "#" fragment ]
// Every character is checked against the class of the part it falls in, which
// also refuses each character that no part admits.
bool URL::parse() {
    const std::string_view s(text_);
    const std::size_t npos = std::string_view::npos;
    if (s.empty()) return false;

    std::size_t i = 0;
    // A scheme is a letter followed by letters, digits, "+", "-", "." and then ":".
    if (is(s[0], kAlpha)) {
        std::size_t j = 1;
        while (j < s.size() && is(s[j], kSchemeTail)) ++j;
        if (j < s.size() && s[j] == ':') {
            scheme_ = {0, j};
            i = j + 1;
        }
    }

    if (s.compare(i, 2, "//") == 0) {
        i += 2;
        // The authority runs to the next "/", "?", "#" or the end. User info
        // ends at its first "@"; a second "@" then fails the host.
        const std::size_t start = i;
        std::size_t authorityEnd = start;
        std::size_t at = npos;
        for (; authorityEnd < s.size(); ++authorityEnd) {
            const char c = s[authorityEnd];
            if (c == '/' || c == '?' || c == '#') break;
            if (c == '@' && at == npos) at = authorityEnd;
        }
        if (at != npos) {
            std::size_t colon = npos;
            for (std::size_t k = start; k < at; ++k) {
                const char c = s[k];
                if (c == ':') {
                    if (colon == npos) colon = k - start;
                } else if (c == '%') {
                    if (!escapeAt(s, k)) return false;
                } else if (!is(c, kUnreserved | kSubDelim)) {
                    return false;
                }
            }
            if (colon == npos) {
                user_ = {start, at - start};
            } else {
                user_ = {start, colon};
                password_ = {start + colon + 1, at - start - colon - 1};
            }
            i = at + 1;
        }
        if (i < authorityEnd && s[i] == '[') {
            const std::size_t close = s.find(']', i);
            if (close == npos || close > authorityEnd) return false;
            if (!validIPLiteral(s.substr(i + 1, close - i - 1))) return false;
            host_ = {i + 1, close - i - 1};
            i = close + 1;
        } else {
            const std::size_t end = scan(s, i, kUnreserved | kSubDelim);
            if (end == npos) return false;
            host_ = {i, end - i};
            i = end;
        }
        if (i < authorityEnd && s[i] == ':') {
            ++i;
            long value = 0;
            const std::size_t digitsStart = i;
            while (i < authorityEnd && is(s[i], kDigit)) {
                value = value * 10 + (s[i] - '0');
                if (value > 65535) return false;
                ++i;
            }
            if (i > digitsStart) port_ = static_cast<int>(value);
        }
        if (i != authorityEnd) return false;
    }

    // The path. Without a scheme and authority, a ":" in the first segment
    // would read as a scheme, so the grammar forbids it there.
    const std::size_t pathStart = i;
    const bool noSchemeNoAuthority = !scheme_.present() && !host_.present();
    bool firstSegment = true;
    while (i < s.size()) {
        const char c = s[i];
        if (c == '/') {
            firstSegment = false;
            ++i;
        } else if (is(c, kUnreserved | kSubDelim | kPathExtra)) {
            if (c == ':' && firstSegment && noSchemeNoAuthority) return false;
            ++i;
        } else if (c == '%') {
            if (!escapeAt(s, i)) return false;
            i += 3;
        } else {
            break;
        }
    }
    path_ = {pathStart, i - pathStart};

    if (i < s.size() && s[i] == '?') {
        const std::size_t end = scan(s, i + 1, kUnreserved | kSubDelim | kPathExtra | kQueryExtra);
        if (end == npos) return false;
        query_ = {i + 1, end - i - 1};
        i = end;
    }
    if (i < s.size() && s[i] == '#') {
        const std::size_t end = scan(s, i + 1, kUnreserved | kSubDelim | kPathExtra | kQueryExtra);
        if (end == npos) return false;
        fragment_ = {i + 1, end - i - 1};
        i = end;
    }
    return i == s.size();
}

namespace {

// The path as written without a trailing "/", unless it is "/" itself.
std::string_view trimmedPath(std::string_view raw) noexcept {
    if (raw.size() > 1 && raw.back() == '/') raw.remove_suffix(1);
    return raw;
}

// Escapes were validated by the parser.
std::string percentDecoded(std::string_view raw) {
    std::string out;
    out.reserve(raw.size());
    for (std::size_t i = 0; i < raw.size(); ++i) {
        if (raw[i] == '%') {
            out.push_back(static_cast<char>(hexValue(raw[i + 1]) * 16 + hexValue(raw[i + 2])));
            i += 2;
        } else {
            out.push_back(raw[i]);
        }
    }
    return out;
}

}  // namespace

std::string URL::path() const {
    return percentDecoded(trimmedPath(std::string_view(text_).substr(path_.pos, path_.len)));
}

std::string URL::lastPathComponent() const {
    // Split before decoding, so that an escaped "/" stays inside its segment.
    const std::string_view raw = trimmedPath(std::string_view(text_).substr(path_.pos, path_.len));
    if (raw.size() <= 1) return std::string(raw);
    const auto slash = raw.rfind('/');
    return percentDecoded(slash == std::string_view::npos ? raw : raw.substr(slash + 1));
}

bool URL::isFileURL() const noexcept {
    if (!scheme_.present() || scheme_.len != 4) return false;
    const char* s = text_.data() + scheme_.pos;
    return (s[0] | 0x20) == 'f' && (s[1] | 0x20) == 'i' && (s[2] | 0x20) == 'l' && (s[3] | 0x20) == 'e';
}

std::shared_ptr<URL> URL::URLByAppendingPathComponent(std::string_view component) const {
    const std::size_t pathEnd = path_.pos + path_.len;
    std::string text;
    text.reserve(text_.size() + component.size() + 8);
    text.append(text_, 0, pathEnd);
    const bool needsSlash = path_.len == 0 ? host_.present() : text_[pathEnd - 1] != '/';
    if (needsSlash) text.push_back('/');
    appendPercentEncoded(text, component, kPathEncodeSet);
    text.append(text_, pathEnd, std::string::npos);

    auto url = URLWithString(text);
    if (!url || url->scheme_.present() != scheme_.present() || url->host_.present() != host_.present() ||
        url->path_.pos != path_.pos)
        return nullptr;
    return url;
}

}  // namespace krcommon::platform

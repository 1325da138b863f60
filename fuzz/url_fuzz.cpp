// Parses arbitrary bytes as a URL. For every accepted text: the text is kept
// verbatim, holds none of the characters a URL may not carry raw, parses again
// to the same parts, and its parts fit back together into the text. Paths
// starting with "/" also go through fileURLWithPath, which must always give a
// URL whose path reads the path back.

#include <krcommon/platform/net/URL.h>

#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

using krcommon::platform::URL;

namespace {

void check(bool condition) {
    if (!condition) std::abort();
}

// What the platform's parser refuses anywhere in a URL.
bool forbidden(unsigned char c) {
    return c <= 0x20 || c >= 0x7F ||
           std::string_view("\"<>\\^`{|}").find(static_cast<char>(c)) != std::string_view::npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const auto url = URL::URLWithString(text);
    if (url) {
        check(url->absoluteString() == text);
        int hashes = 0;
        for (std::size_t i = 0; i < text.size(); ++i) {
            const auto c = static_cast<unsigned char>(text[i]);
            check(!forbidden(c));
            if (c == '#') ++hashes;
            if (c == '%') {
                check(i + 2 < text.size() && std::isxdigit(static_cast<unsigned char>(text[i + 1])) &&
                      std::isxdigit(static_cast<unsigned char>(text[i + 2])));
            }
        }
        check(hashes <= 1);

        const auto again = URL::URLWithString(url->absoluteString());
        check(again != nullptr);
        check(again->scheme() == url->scheme() && again->user() == url->user() &&
              again->password() == url->password() && again->host() == url->host() &&
              again->port() == url->port() && again->path() == url->path() && again->query() == url->query() &&
              again->fragment() == url->fragment() && again->lastPathComponent() == url->lastPathComponent());

        // Reassemble the parts around the port, whose spelling (leading zeros,
        // empty) is not kept: what lies between host and path must be nothing
        // or ":" and digits of the port's value.
        std::string prefix;
        if (url->scheme()) prefix += *url->scheme() + ":";
        std::string suffix = url->percentEncodedPath();
        if (url->query()) suffix += "?" + *url->query();
        if (url->fragment()) suffix += "#" + *url->fragment();
        if (!url->host()) {
            check(prefix + suffix == text);
        } else {
            prefix += "//";
            if (url->user()) prefix += *url->user() + (url->password() ? ":" + *url->password() : "") + "@";
            check(text.starts_with(prefix));
            const std::string host = *url->host();
            if (text.compare(prefix.size(), host.size() + 2, "[" + host + "]") == 0) {
                prefix += "[" + host + "]";
            } else {
                check(host.find(':') == std::string::npos);
                prefix += host;
            }
            check(text.starts_with(prefix) && text.ends_with(suffix) && prefix.size() + suffix.size() <= text.size());
            const std::string_view middle = text.substr(prefix.size(), text.size() - prefix.size() - suffix.size());
            if (middle.empty()) {
                check(!url->port());
            } else {
                check(middle[0] == ':');
                long value = middle.size() == 1 ? -1 : 0;
                for (char c : middle.substr(1)) {
                    check(std::isdigit(static_cast<unsigned char>(c)));
                    value = value * 10 + (c - '0');
                }
                check(value == (url->port() ? *url->port() : -1));
            }
        }

        if (const auto appended = url->URLByAppendingPathComponent(text)) {
            check(URL::URLWithString(appended->absoluteString()) != nullptr);
            check(appended->query() == url->query() && appended->fragment() == url->fragment());
        }
    }

    if (!text.empty() && text.front() == '/' && text.find('\0') == std::string_view::npos) {
        const auto file = URL::fileURLWithPath(std::string(text));
        check(file != nullptr);
        std::string expected(text);
        while (expected.size() > 1 && expected.back() == '/') expected.pop_back();
        std::string path = file->path();
        while (path.size() > 1 && path.back() == '/') path.pop_back();
        check(path == expected);
    }
    return 0;
}

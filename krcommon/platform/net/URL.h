#pragma once

// An immutable URL parsed strictly as an RFC 3986 URI reference (absolute or
// relative). The text is kept exactly as given; the accessors are views of its
// parts. What the mobile platform's parser refuses is refused here too, so a
// string that makes a URL there makes one here and the other way round:
// a space, a control character, any byte above 0x7E, `"`, `<`, `>`, `\`, `^`,
// a backtick, `{`, `|`, `}`, a `%` not followed by two hex digits and a second
// `#`. Beyond that the RFC 3986 grammar applies: `[` and `]` only around an IP
// literal host, an IP literal must be a well-formed IPv6 or IPvFuture address,
// the user info holds no `@`, the port only digits, and a relative reference
// without a scheme may not have a `:` in its first path segment.
//
// Decisions where the platform's parsers differ or the RFC leaves room:
// - The empty string is refused (the platform answers nil for it).
// - A port is refused when its value exceeds 65535: no transport can use it and
//   port() could not carry it faithfully. An empty port ("http://h:/") is
//   accepted and reads as absent, as the RFC allows.
// - Host, user, password, query and fragment are returned as written: no
//   percent-decoding, no case folding. Only path() is decoded (see there).

#include <krcommon/platform/core/Export.h>
#include <krcommon/platform/core/Value.h>

#include <cstddef>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace krcommon::platform {

class KRCOMMON_EXPORT URL final : public Object {
public:
    /// Parses `text`; nullptr when it is not an acceptable URI reference (see the
    /// file comment). One pass over the text, no allocation beyond the copy kept.
    [[nodiscard]] static std::shared_ptr<URL> URLWithString(std::string_view text);

    /// A "file://" URL for `path`. A relative path is made absolute against the
    /// current directory (no "." or ".." folding). Bytes outside the path
    /// characters of RFC 3986 are percent-encoded (UTF-8 bytes as %XX), so any
    /// path gives a URL whose path() reads it back. A trailing "/" is added when
    /// the path names an existing directory, as the platform does. nullptr for
    /// an empty path or when the current directory cannot be read.
    [[nodiscard]] static std::shared_ptr<URL> fileURLWithPath(const std::filesystem::path& path);

    /// The text exactly as it was given.
    [[nodiscard]] const std::string& absoluteString() const noexcept { return text_; }

    /// The scheme without its ":", as written; nullopt for a relative reference.
    [[nodiscard]] std::optional<std::string> scheme() const { return part(scheme_); }
    /// The user part of the user info (before the first ":"), as written;
    /// nullopt when the authority has no user info.
    [[nodiscard]] std::optional<std::string> user() const { return part(user_); }
    /// The password part of the user info (after the first ":"), as written;
    /// nullopt when the user info has no ":".
    [[nodiscard]] std::optional<std::string> password() const { return part(password_); }
    /// The host as written, without the brackets of an IP literal; nullopt when
    /// there is no authority ("//"), "" for an empty one ("file:///tmp").
    [[nodiscard]] std::optional<std::string> host() const { return part(host_); }
    /// The port number; nullopt when absent or written empty.
    [[nodiscard]] std::optional<int> port() const {
        return port_ < 0 ? std::nullopt : std::optional<int>(port_);
    }
    /// The path percent-decoded to bytes, as the platform's `path` reads it: a
    /// trailing "/" is dropped unless the path is "/" itself ("http://h/a/" gives
    /// "/a"); "" when the URL has no path. Decoded bytes are passed through as
    /// they are, even when they do not form UTF-8 (the platform answers nil then).
    [[nodiscard]] std::string path() const;
    /// The path exactly as written, trailing "/" included.
    [[nodiscard]] std::string percentEncodedPath() const { return text_.substr(path_.pos, path_.len); }
    /// The query without its "?", as written; "" for a bare "?", nullopt without "?".
    [[nodiscard]] std::optional<std::string> query() const { return part(query_); }
    /// Whether the text has a "?" part (possibly empty).
    [[nodiscard]] bool hasQuery() const noexcept { return query_.present(); }
    /// The fragment without its "#", as written; "" for a bare "#", nullopt without "#".
    [[nodiscard]] std::optional<std::string> fragment() const { return part(fragment_); }

    /// The last segment of the path, percent-decoded: "b.txt" for "/a/b.txt",
    /// "a" for "/a/", "c/d" for "/c%2Fd", "/" for "/", "" for an empty path.
    [[nodiscard]] std::string lastPathComponent() const;
    /// Whether the scheme is "file" (in any case).
    [[nodiscard]] bool isFileURL() const noexcept;

    /// A new URL whose path has `component` appended, separated by a "/" unless
    /// the path already ends with one; query and fragment are kept. Bytes that a
    /// path may not hold are percent-encoded ("/" is kept, as the platform does).
    /// nullptr in the rare case where the result would change the URL's shape,
    /// e.g. appending "//x" to a URL with neither authority nor path.
    [[nodiscard]] std::shared_ptr<URL> URLByAppendingPathComponent(std::string_view component) const;

    /// The absolute string, which is what the platform prints for `%@`.
    [[nodiscard]] std::string description() const override { return text_; }

    /// URLs are equal when their texts are.
    friend bool operator==(const URL& a, const URL& b) noexcept { return a.text_ == b.text_; }

private:
    // A slice of text_; absent parts have pos == npos.
    struct Range {
        std::size_t pos = std::string::npos;
        std::size_t len = 0;
        [[nodiscard]] bool present() const noexcept { return pos != std::string::npos; }
    };

    URL() = default;
    bool parse();
    [[nodiscard]] std::optional<std::string> part(Range r) const {
        if (!r.present()) return std::nullopt;
        return text_.substr(r.pos, r.len);
    }

    std::string text_;
    Range scheme_;
    Range user_;
    Range password_;
    Range host_;
    Range path_{0, 0};
    Range query_;
    Range fragment_;
    int port_ = -1;
};

}  // namespace krcommon::platform

#pragma once

// The module's HTTP client. This part of it builds requests: the caller's
// parameters go into the URL for the methods listed in
// `HTTPMethodsEncodingParametersInURI` and into a form or JSON body for the
// others, and the manager's default headers are added to every request built.
// It also carries the SDK's second logging path, "[CommonSDK-<label>-<file>]=>".

#include <krcommon/platform/core/Error.h>
#include <krcommon/platform/core/Format.h>
#include <krcommon/platform/net/URLRequest.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>

namespace krcommon {

class KRCOMMON_EXPORT KRSDKMemberHttpManager : public std::enable_shared_from_this<KRSDKMemberHttpManager> {
public:
    /// A manager with no default headers and "GET", "HEAD" and "DELETE" as the
    /// methods that carry their parameters in the URL.
    static std::shared_ptr<KRSDKMemberHttpManager> create();
    KRSDKMemberHttpManager();
    virtual ~KRSDKMemberHttpManager();
    KRSDKMemberHttpManager(const KRSDKMemberHttpManager&) = delete;
    KRSDKMemberHttpManager& operator=(const KRSDKMemberHttpManager&) = delete;

    /// Builds a request for `method` (kept as given) and `URLString`.
    ///
    /// Default headers are added where the request has no value for the field
    /// yet. For a method in `HTTPMethodsEncodingParametersInURI` (compared in
    /// upper case) the parameter dictionary's query string is appended to the
    /// URL with "?" or "&"; when that text does not parse, it is percent-encoded
    /// with the URL-unsafe set (escapes already made are encoded again) and
    /// parsed once more. For every other method the body is the form-encoded
    /// query (`isFormatParam`) or pretty JSON of a dictionary, a string sent as
    /// it is, or nothing for any other kind; "Content-Type" defaults to
    /// "application/x-www-form-urlencoded". The timeout is left at the default.
    ///
    /// Throws `platform::InternalInconsistencyException` with
    /// "Invalid parameter not satisfying: method" / "...: URLString" / "...: url"
    /// when the method or URL string is absent or the URL string does not parse.
    /// `error` is accepted for symmetry with the platform and never written.
    platform::URLRequest requestWithMethod(std::optional<std::string_view> method,
                                           std::optional<std::string_view> URLString,
                                           const platform::Value& parameters, bool isFormatParam,
                                           std::shared_ptr<platform::Error>* error = nullptr);

    /// Sets the default header `field` (exact case) to `value`; nullopt removes
    /// it. Affects requests built afterwards. Not synchronised with concurrent
    /// request building: configure a manager before using it from other threads.
    void setValue(std::optional<std::string> value, const std::string& field);

    /// The default headers, field (exact case) to value.
    [[nodiscard]] const std::map<std::string, std::string>& mutableHTTPRequestHeaders() const noexcept {
        return mutableHTTPRequestHeaders_;
    }

    /// The methods whose parameters go into the URL; "GET", "HEAD", "DELETE" at creation.
    [[nodiscard]] const std::set<std::string>& HTTPMethodsEncodingParametersInURI() const noexcept {
        return HTTPMethodsEncodingParametersInURI_;
    }
    void setHTTPMethodsEncodingParametersInURI(std::set<std::string> methods) {
        HTTPMethodsEncodingParametersInURI_ = std::move(methods);
    }

    // ---- The second logging path, for the SDK's other modules.

    /// Non-zero `disableErrorLog` suppresses type 1 lines, non-zero
    /// `disableDebugLog` type 0 lines. Both start at zero.
    static void setDisabelErrr(std::int64_t disableErrorLog, std::int64_t disableDebugLog) noexcept;

    /// Writes "[CommonSDK-<label>-<file>]=><message>" to the system log unless
    /// the type is switched off: type 0 is labelled "DEBUG", every other type
    /// "ERROR". Function and line are not printed; no lock is taken.
    template <class Format, class... Args>
    static void logFromFile(std::string_view file, std::string_view function, std::uint64_t line,
                            std::int64_t type, const Format& format, const Args&... args) {
        if (isSuppressed(type)) return;
        if constexpr (std::is_convertible_v<const Format&, std::string_view>) {
            logFromFileWithArgs(file, function, line, type, std::string_view(format), args...);
        } else {
            const std::string text = platform::Value(format).description();
            logFromFileWithArgs(file, function, line, type, std::string_view(text), args...);
        }
    }

    /// The non-template core of `logFromFile`.
    static void logFromFilev(std::string_view file, std::string_view function, std::uint64_t line,
                             std::int64_t type, std::string_view format, std::span<const platform::FormatArg> args);

private:
    [[nodiscard]] static bool isSuppressed(std::int64_t type) noexcept;

    template <class... Args>
    static void logFromFileWithArgs(std::string_view file, std::string_view function, std::uint64_t line,
                                    std::int64_t type, std::string_view format, const Args&... args) {
        if constexpr (sizeof...(Args) == 0) {
            logFromFilev(file, function, line, type, format, {});
        } else {
            const platform::FormatArg list[] = {platform::FormatArg(args)...};
            logFromFilev(file, function, line, type, format, list);
        }
    }

    std::map<std::string, std::string> mutableHTTPRequestHeaders_;
    std::set<std::string> HTTPMethodsEncodingParametersInURI_{"DELETE", "GET", "HEAD"};
};

}  // namespace krcommon

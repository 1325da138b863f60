#pragma once

// The SDK logger. Every diagnostic line of the module goes through
// `KRSDKLogger::log`, which tags it with a prefix, a level label, the caller's
// source file and line:
//
//     [KRSDK-<prefix>-<label>-<file>-<line>]=><message>
//
// Levels: 0 and 1 print "DEBUG", 2 "ERROR", 3 "SERIOUS", anything else an
// empty label. The module traces at 1 and reports failures at 2.

#include <krcommon/platform/core/Format.h>

#include <atomic>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <type_traits>

namespace krcommon {

class KRCOMMON_EXPORT KRSDKLogger {
public:
    /// The process-wide logger, created once on first use with `isDebugModel` on.
    static KRSDKLogger& instance();

    /// Sets the singleton's `isDebugModel`.
    static void enableDebugLog(bool enable);

    /// The label of a level: "DEBUG" for 0 and 1, "ERROR" for 2, "SERIOUS" for 3, "" otherwise.
    [[nodiscard]] static std::string_view descriptionForLevel(std::int32_t level) noexcept;

    /// Writes one line when the build's debug switch is on (the default), or
    /// `isDebugModel` is on, or the level is 3. `prefix` may be absent (printed
    /// empty); `format` is printf-style with `%@` and may also be any Value, in
    /// which case its description is the format. `function` is accepted for the
    /// call site's record but not printed. Lines are formatted and written under
    /// a process-wide recursive lock, so they never interleave and a description
    /// that logs again does not dead-lock.
    template <class Format, class... Args>
    static void log(std::string_view file, std::string_view function, std::uint64_t line,
                    std::optional<std::string_view> prefix, std::int32_t level, const Format& format,
                    const Args&... args) {
        if constexpr (std::is_convertible_v<const Format&, std::string_view>) {
            logWithArgs(file, function, line, prefix, level, std::string_view(format), args...);
        } else {
            // A format that is not a string is logged as its description.
            const std::string text = platform::Value(format).description();
            logWithArgs(file, function, line, prefix, level, std::string_view(text), args...);
        }
    }

    /// The non-template core of `log`.
    static void logv(std::string_view file, std::string_view function, std::uint64_t line,
                     std::optional<std::string_view> prefix, std::int32_t level, std::string_view format,
                     std::span<const platform::FormatArg> args);

    /// Stored and readable; no operation of the module consults it. Default 0.
    [[nodiscard]] std::int32_t level() const noexcept { return level_.load(std::memory_order_relaxed); }
    void setLevel(std::int32_t level) noexcept { level_.store(level, std::memory_order_relaxed); }

    /// The run-time debug switch; on from creation.
    [[nodiscard]] bool isDebugModel() const noexcept { return isDebugModel_.load(std::memory_order_relaxed); }
    void setIsDebugModel(bool on) noexcept { isDebugModel_.store(on, std::memory_order_relaxed); }

    /// Whether the build-time debug switch is on: then every line is written.
    [[nodiscard]] static bool buildDebugSwitch() noexcept;

    KRSDKLogger(const KRSDKLogger&) = delete;
    KRSDKLogger& operator=(const KRSDKLogger&) = delete;

private:
    KRSDKLogger() = default;

    template <class... Args>
    static void logWithArgs(std::string_view file, std::string_view function, std::uint64_t line,
                            std::optional<std::string_view> prefix, std::int32_t level, std::string_view format,
                            const Args&... args) {
        if constexpr (sizeof...(Args) == 0) {
            logv(file, function, line, prefix, level, format, {});
        } else {
            const platform::FormatArg list[] = {platform::FormatArg(args)...};
            logv(file, function, line, prefix, level, format, list);
        }
    }

    std::atomic<std::int32_t> level_{0};
    std::atomic<bool> isDebugModel_{false};
};

namespace detail {
/// The base name of a source path without folders and extension, so that a
/// call site in ".../http/KRSDKResponseHandler.cpp" logs as "KRSDKResponseHandler".
constexpr std::string_view sourceBaseName(std::string_view path) noexcept {
    const auto slash = path.rfind('/');
    if (slash != std::string_view::npos) path.remove_prefix(slash + 1);
    const auto dot = path.rfind('.');
    if (dot != std::string_view::npos && dot != 0) path = path.substr(0, dot);
    return path;
}
}  // namespace detail

}  // namespace krcommon

/// Logs through `KRSDKLogger::log` with the calling file's base name, function
/// and line filled in: `KRSDK_LOG("Login", 2, "code is:%ld", code);`
#define KRSDK_LOG(prefix, level, ...)                                                                      \
    ::krcommon::KRSDKLogger::log(::krcommon::detail::sourceBaseName(__FILE__), __func__,                   \
                                 static_cast<std::uint64_t>(__LINE__), (prefix), (level), __VA_ARGS__)

#pragma once

// The one printf of the library: the C conversions (%d %i %u %x %X %o %c %s %f
// %e %g %a %p %%, with flags, width, precision, `*`, positional `n$` and length
// modifiers) plus `%@`, which prints the description of a Value, a platform
// object or a string. Arguments are carried with their real types, so a
// mismatched or missing argument never reads garbage: a missing one prints
// "(null)" (or 0 for numeric conversions), a mismatched one prints its natural
// form.

#include <krcommon/platform/core/Value.h>

#include <fmt/format.h>

#include <concepts>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>

namespace krcommon::platform {

/// One type-erased format argument. Holds a reference: it must not outlive the
/// call it is made for.
class KRCOMMON_EXPORT FormatArg {
public:
    enum class Kind : std::uint8_t { Signed, Unsigned, Real, CString, String, Value, Object, Pointer };

    template <class T>
        requires(std::integral<T> && std::is_signed_v<T>)
    FormatArg(T v) noexcept : kind_(Kind::Signed), i_(v) {}
    template <class T>
        requires(std::integral<T> && !std::is_signed_v<T>)
    FormatArg(T v) noexcept : kind_(Kind::Unsigned), u_(v) {}
    template <class T>
        requires std::floating_point<T>
    FormatArg(T v) noexcept : kind_(Kind::Real), d_(static_cast<double>(v)) {}
    FormatArg(const char* s) noexcept : kind_(Kind::CString), s_(s) {}
    FormatArg(char* s) noexcept : kind_(Kind::CString), s_(s) {}
    FormatArg(const std::string& s) noexcept : kind_(Kind::String), sv_(s) {}
    FormatArg(std::string_view s) noexcept : kind_(Kind::String), sv_(s) {}
    FormatArg(const Value& v) noexcept : kind_(Kind::Value), v_(&v) {}
    FormatArg(const Object* o) noexcept : kind_(Kind::Object), o_(o) {}
    template <class T>
        requires std::derived_from<T, Object>
    FormatArg(const std::shared_ptr<T>& o) noexcept : kind_(Kind::Object), o_(o.get()) {}
    /// An absent optional string prints as nil.
    FormatArg(const std::optional<std::string>& s) noexcept
        : kind_(s ? Kind::String : Kind::CString), s_(nullptr) {
        if (s) sv_ = *s;
    }
    FormatArg(std::optional<std::string_view> s) noexcept : kind_(s ? Kind::String : Kind::CString), s_(nullptr) {
        if (s) sv_ = *s;
    }
    FormatArg(const void* p) noexcept : kind_(Kind::Pointer), p_(p) {}
    FormatArg(std::nullptr_t) noexcept : kind_(Kind::CString), s_(nullptr) {}

    [[nodiscard]] Kind kind() const noexcept { return kind_; }

private:
    friend struct FormatArgAccess;
    Kind kind_;
    union {
        std::int64_t i_;
        std::uint64_t u_;
        double d_;
        const char* s_;
        std::string_view sv_;
        const Value* v_;
        const Object* o_;
        const void* p_;
    };
};

/// Appends `fmt` formatted with `args` to `out`.
KRCOMMON_EXPORT void vformatTo(fmt::memory_buffer& out, std::string_view fmt, std::span<const FormatArg> args);

/// Returns `fmt` formatted with `args`.
KRCOMMON_EXPORT std::string vformat(std::string_view fmt, std::span<const FormatArg> args);

/// Formats printf-style with `%@`; see the file comment.
template <class... Args>
[[nodiscard]] std::string format(std::string_view fmt, const Args&... args) {
    if constexpr (sizeof...(Args) == 0) {
        return vformat(fmt, {});
    } else {
        const FormatArg list[] = {FormatArg(args)...};
        return vformat(fmt, list);
    }
}

/// Appends printf-style with `%@` to a memory buffer.
template <class... Args>
void formatTo(fmt::memory_buffer& out, std::string_view fmt, const Args&... args) {
    if constexpr (sizeof...(Args) == 0) {
        vformatTo(out, fmt, {});
    } else {
        const FormatArg list[] = {FormatArg(args)...};
        vformatTo(out, fmt, list);
    }
}

}  // namespace krcommon::platform

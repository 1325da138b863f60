#include <krcommon/platform/core/Format.h>

#include <fmt/printf.h>

#include <algorithm>
#include <charconv>
#include <cstring>

namespace krcommon::platform {

struct FormatArgAccess {
    static std::int64_t i(const FormatArg& a) noexcept { return a.i_; }
    static std::uint64_t u(const FormatArg& a) noexcept { return a.u_; }
    static double d(const FormatArg& a) noexcept { return a.d_; }
    static const char* s(const FormatArg& a) noexcept { return a.s_; }
    static std::string_view sv(const FormatArg& a) noexcept { return a.sv_; }
    static const Value* v(const FormatArg& a) noexcept { return a.v_; }
    static const Object* o(const FormatArg& a) noexcept { return a.o_; }
    static const void* p(const FormatArg& a) noexcept { return a.p_; }
};

namespace {

using A = FormatArgAccess;
using Kind = FormatArg::Kind;

void append(fmt::memory_buffer& out, std::string_view s) { out.append(s.data(), s.data() + s.size()); }

template <class Int>
void appendInteger(fmt::memory_buffer& out, Int v) {
    char buf[24];
    auto [end, ec] = std::to_chars(buf, buf + sizeof buf, v);
    (void)ec;
    out.append(buf, end);
}

// The object form of an argument: what %@ prints.
void appendObject(fmt::memory_buffer& out, const FormatArg* arg) {
    if (!arg) {
        append(out, "(null)");
        return;
    }
    switch (arg->kind()) {
        case Kind::Signed: appendInteger(out, A::i(*arg)); return;
        case Kind::Unsigned: appendInteger(out, A::u(*arg)); return;
        case Kind::Real: append(out, numberDescription(A::d(*arg))); return;
        case Kind::CString: append(out, A::s(*arg) ? std::string_view(A::s(*arg)) : std::string_view("(null)")); return;
        case Kind::String: append(out, A::sv(*arg)); return;
        case Kind::Value: {
            const Value& v = *A::v(*arg);
            if (const auto* s = v.string()) {
                append(out, *s);
            } else {
                std::string text;
                v.appendDescription(text, 0);
                append(out, text);
            }
            return;
        }
        case Kind::Object:
            append(out, A::o(*arg) ? std::string_view(A::o(*arg)->description()) : std::string_view("(null)"));
            return;
        case Kind::Pointer: fmt::format_to(std::back_inserter(out), "{}", A::p(*arg)); return;
    }
}

// Widths and precisions are clamped here, literal or taken from an argument: no line of
// the library needs more, and an unchecked `*` could ask for gigabytes of padding.
constexpr int kMaxWidth = 4096;

struct Conversion {
    std::string_view flags;
    bool leftJustify = false;  // a negative `*` width, as in C
    int width = -1;
    int precision = -1;
    bool hasWidth = false;
    bool hasPrecision = false;
    char length = 0;  // 'H' hh, 'h', 'l' (l, ll, q, j, z, t), 'L'
    char conversion = 0;
};

std::int64_t asSigned(const FormatArg* a, char length) {
    if (!a) return 0;
    std::int64_t v = 0;
    switch (a->kind()) {
        case Kind::Signed: v = A::i(*a); break;
        case Kind::Unsigned: v = static_cast<std::int64_t>(A::u(*a)); break;
        case Kind::Real: v = static_cast<std::int64_t>(A::d(*a)); break;
        case Kind::Value: v = A::v(*a)->integerValue().value_or(0); break;
        default: v = 0;
    }
    switch (length) {
        case 'H': return static_cast<std::int8_t>(v);
        case 'h': return static_cast<std::int16_t>(v);
        case 0: return static_cast<std::int32_t>(v);
        default: return v;
    }
}

std::uint64_t asUnsigned(const FormatArg* a, char length) {
    const auto v = static_cast<std::uint64_t>(asSigned(a, 'l'));
    switch (length) {
        case 'H': return static_cast<std::uint8_t>(v);
        case 'h': return static_cast<std::uint16_t>(v);
        case 0: return static_cast<std::uint32_t>(v);
        default: return v;
    }
}

double asReal(const FormatArg* a) {
    if (!a) return 0.0;
    switch (a->kind()) {
        case Kind::Real: return A::d(*a);
        case Kind::Signed: return static_cast<double>(A::i(*a));
        case Kind::Unsigned: return static_cast<double>(A::u(*a));
        case Kind::Value: return A::v(*a)->realValue().value_or(0.0);
        default: return 0.0;
    }
}

// Hands one conversion with its flags, width and precision to fmt's printf.
// Flags fmt does not know (the grouping "'") are left out; a combination it
// still refuses prints the value with no flags rather than failing the line.
template <class T>
void appendWithFlags(fmt::memory_buffer& out, const Conversion& conv, T value) {
    char buf[64];
    std::size_t n = 0;
    buf[n++] = '%';
    if (conv.leftJustify) buf[n++] = '-';
    for (char f : conv.flags)
        if (n < 8 && f != '\'') buf[n++] = f;
    if (conv.hasWidth) n += static_cast<std::size_t>(std::snprintf(buf + n, 16, "%d", conv.width));
    if (conv.hasPrecision) n += static_cast<std::size_t>(std::snprintf(buf + n, 16, ".%d", conv.precision));
    buf[n++] = conv.conversion;
    try {
        append(out, fmt::sprintf(std::string_view(buf, n), value));
    } catch (const fmt::format_error&) {
        const char plain[2] = {'%', conv.conversion};
        append(out, fmt::sprintf(std::string_view(plain, 2), value));
    }
}

bool isPlain(const Conversion& s) { return s.flags.empty() && !s.hasWidth && !s.hasPrecision; }

}  // namespace

void vformatTo(fmt::memory_buffer& out, std::string_view fmt, std::span<const FormatArg> args) {
    std::size_t next = 0;
    auto take = [&](std::size_t explicitIndex) -> const FormatArg* {
        const std::size_t i = explicitIndex ? explicitIndex - 1 : next++;
        return i < args.size() ? &args[i] : nullptr;
    };

    const char* p = fmt.data();
    const char* const end = p + fmt.size();
    while (p < end) {
        const char* percent = static_cast<const char*>(std::memchr(p, '%', static_cast<std::size_t>(end - p)));
        if (!percent) {
            out.append(p, end);
            break;
        }
        out.append(p, percent);
        p = percent + 1;
        if (p >= end) {  // a lone trailing '%'
            out.push_back('%');
            break;
        }
        if (*p == '%') {
            out.push_back('%');
            ++p;
            continue;
        }

        // Positional argument: digits followed by '$'.
        std::size_t position = 0;
        {
            const char* q = p;
            std::size_t n = 0;
            while (q < end && *q >= '0' && *q <= '9') n = n * 10 + static_cast<std::size_t>(*q++ - '0');
            if (q < end && *q == '$' && q != p && n > 0) {
                position = n;
                p = q + 1;
            }
        }

        Conversion conv;
        const char* flagsStart = p;
        while (p < end && *p != '\0' && std::strchr("-+ #0'", *p)) ++p;
        conv.flags = std::string_view(flagsStart, static_cast<std::size_t>(p - flagsStart));
        if (p < end && *p == '*') {
            ++p;
            conv.hasWidth = true;
            const std::int64_t given = asSigned(take(0), 0);  // an int, as C reads it
            conv.leftJustify = given < 0;
            conv.width = static_cast<int>(std::min<std::int64_t>(given < 0 ? -given : given, kMaxWidth));
        } else {
            while (p < end && *p >= '0' && *p <= '9') {
                conv.hasWidth = true;
                conv.width = (conv.width < 0 ? 0 : conv.width) * 10 + (*p++ - '0');
                if (conv.width > kMaxWidth) conv.width = kMaxWidth;
            }
        }
        if (p < end && *p == '.') {
            ++p;
            conv.hasPrecision = true;
            conv.precision = 0;
            if (p < end && *p == '*') {
                ++p;
                conv.precision = static_cast<int>(std::min<std::int64_t>(asSigned(take(0), 0), kMaxWidth));
            } else {
                while (p < end && *p >= '0' && *p <= '9') {
                    conv.precision = conv.precision * 10 + (*p++ - '0');
                    if (conv.precision > kMaxWidth) conv.precision = kMaxWidth;
                }
            }
        }
        if (conv.width < 0 && conv.hasWidth) conv.width = 0;
        if (conv.precision < 0) conv.hasPrecision = false;
        while (p < end && *p != '\0' && std::strchr("hlqLjzt", *p)) {
            if (*p == 'h') conv.length = conv.length == 'h' ? 'H' : 'h';
            else if (*p == 'L') conv.length = 'L';
            else conv.length = 'l';
            ++p;
        }
        if (p >= end) break;  // an unfinished conversion prints nothing
        conv.conversion = *p++;

        switch (conv.conversion) {
            case '@': {
                const FormatArg* a = take(position);
                if (isPlain(conv)) {
                    appendObject(out, a);
                } else {
                    fmt::memory_buffer text;
                    appendObject(text, a);
                    conv.conversion = 's';
                    appendWithFlags(out, conv, std::string_view(text.data(), text.size()));
                }
                break;
            }
            case 's': {
                const FormatArg* a = take(position);
                if (isPlain(conv)) {
                    appendObject(out, a);
                } else {
                    fmt::memory_buffer text;
                    appendObject(text, a);
                    appendWithFlags(out, conv, std::string_view(text.data(), text.size()));
                }
                break;
            }
            case 'd':
            case 'i': {
                const auto v = asSigned(take(position), conv.length);
                if (isPlain(conv)) appendInteger(out, v);
                else appendWithFlags(out, conv, static_cast<long long>(v));
                break;
            }
            case 'u':
            case 'x':
            case 'X':
            case 'o': {
                const auto v = asUnsigned(take(position), conv.length);
                if (isPlain(conv) && conv.conversion == 'u') appendInteger(out, v);
                else appendWithFlags(out, conv, static_cast<unsigned long long>(v));
                break;
            }
            case 'c':
            case 'C': {
                const auto v = asSigned(take(position), 0);
                conv.conversion = 'c';
                appendWithFlags(out, conv, static_cast<char>(v));
                break;
            }
            case 'f':
            case 'F':
            case 'e':
            case 'E':
            case 'g':
            case 'G':
            case 'a':
            case 'A': appendWithFlags(out, conv, asReal(take(position))); break;
            case 'p': {
                const FormatArg* a = take(position);
                const void* ptr = nullptr;
                if (a && a->kind() == Kind::Pointer) ptr = A::p(*a);
                else if (a && a->kind() == Kind::Object) ptr = A::o(*a);
                else if (a && a->kind() == Kind::Value) ptr = A::v(*a);
                else if (a && a->kind() == Kind::CString) ptr = A::s(*a);
                fmt::format_to(std::back_inserter(out), "{}", ptr);
                break;
            }
            default:
                // Not a conversion this printf knows: keep the text as written.
                out.push_back('%');
                out.push_back(conv.conversion);
                break;
        }
    }
}

std::string vformat(std::string_view fmt, std::span<const FormatArg> args) {
    fmt::memory_buffer out;
    vformatTo(out, fmt, args);
    return std::string(out.data(), out.size());
}

}  // namespace krcommon::platform

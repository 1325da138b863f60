// printf with %@: any format text, with too few, too many or mismatched
// arguments, must format without reading past its arguments or crashing, and
// a format without '%' must come back unchanged.
#include <krcommon/platform/core/Format.h>

#include <cstdlib>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using krcommon::platform::Dictionary;
    using krcommon::platform::Value;
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    static const Value dict(Dictionary{{"k", "v"}, {"n", 5}});
    (void)krcommon::platform::format(text);
    (void)krcommon::platform::format(text, 42, "str", 3.5, dict, -7L, static_cast<const char*>(nullptr));
    (void)krcommon::platform::format(text, dict, dict, 'c', 18446744073709551615UL);
    if (text.find('%') == std::string_view::npos && krcommon::platform::format(text) != text) std::abort();
    return 0;
}

// Localisation tables in any form (text in UTF-8 or UTF-16, XML or binary
// property lists): whatever parses must give keys and texts that are valid
// UTF-8, and a text table written back in the plain form must read the same.

#include <krcommon/platform/app/StringsTable.h>
#include <krcommon/platform/io/UTF8.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

using namespace krcommon::platform;

namespace {

std::string quoted(const std::string& s) {
    std::string out = "\"";
    for (char c : s) {
        if (c == '"' || c == '\\') out.push_back('\\');
        out.push_back(c);
    }
    return out + "\"";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    const auto table = StringsTable::parse(bytes);
    if (!table) return 0;
    std::string text;
    for (const auto& [key, value] : *table) {
        if (!UTF8::isValid(key) || !UTF8::isValid(value)) std::abort();
        text += quoted(key) + " = " + quoted(value) + ";\n";
    }
    // A table of NUL-free entries round-trips through the text form (a NUL
    // byte would make the text look like UTF-16).
    if (text.find('\0') != std::string::npos) return 0;
    const auto again = StringsTable::parse(text);
    if (!again || *again != *table) std::abort();
    return 0;
}

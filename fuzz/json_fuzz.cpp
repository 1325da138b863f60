// JSON text into Values and back: whatever parses must write, compactly and
// pretty, and the written text must parse to an equal Value.

#include <krcommon/platform/io/JSONSerialization.h>

#include <cstdint>
#include <cstdlib>
#include <string_view>

using krcommon::platform::Error;
using krcommon::platform::JSONSerialization;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    std::shared_ptr<Error> error;
    const auto value = JSONSerialization::parse(bytes, &error);
    if (!value) {
        if (!error || error->code() != JSONSerialization::readErrorCode) std::abort();
        return 0;
    }
    if (!JSONSerialization::isValidJSONObject(*value)) std::abort();
    for (bool pretty : {false, true}) {
        const auto text = JSONSerialization::write(*value, pretty);
        if (!text) std::abort();
        const auto again = JSONSerialization::parse(*text);
        if (!again || !(*again == *value)) std::abort();
    }
    return 0;
}

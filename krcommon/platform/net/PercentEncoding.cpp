#include <krcommon/platform/net/PercentEncoding.h>

namespace krcommon::platform {

void appendPercentEncoded(std::string& out, std::string_view text, const PercentEncodeSet& set) {
    static constexpr char hex[] = "0123456789ABCDEF";
    const char* p = text.data();
    const char* const end = p + text.size();
    while (p < end) {
        // Copy the longest run of bytes that stay as they are in one go.
        const char* run = p;
        while (run < end && !set.member[static_cast<unsigned char>(*run)]) ++run;
        out.append(p, run);
        p = run;
        while (p < end && set.member[static_cast<unsigned char>(*p)]) {
            const auto b = static_cast<unsigned char>(*p++);
            const char escaped[3] = {'%', hex[b >> 4], hex[b & 0xF]};
            out.append(escaped, 3);
        }
    }
}

}  // namespace krcommon::platform

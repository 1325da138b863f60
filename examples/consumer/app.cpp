// A program outside the krcommon tree that uses an installed library, built with the
// README's CMake and pkg-config lines against an install or the Debian packages. It
// checks a few answers that only the real library gives, and that the error page it
// draws carries its picture. Exits 1 on the first wrong one.

#include <krcommon/krcommon.h>
#include <krcommon/platform/ui/Renderer.h>

#include <cstdio>
#include <string>

using namespace krcommon;

static int failures = 0;

static void check(const char* what, const std::string& got, const std::string& expected) {
    if (got == expected) return;
    std::fprintf(stderr, "%s: got \"%s\", expected \"%s\"\n", what, got.c_str(), expected.c_str());
    ++failures;
}

// The share of the picture's square, as drawn at `scale`, that is not the page's white.
static double pictureCoverage(const platform::Image& page, const platform::Rect& frame, double scale) {
    int drawn = 0, all = 0;
    for (int y = static_cast<int>(frame.minY() * scale); y < static_cast<int>(frame.maxY() * scale); ++y) {
        for (int x = static_cast<int>(frame.minX() * scale); x < static_cast<int>(frame.maxX() * scale); ++x, ++all) {
            const auto p = page.pixelAt(x, y);
            if (p.alpha != 0 && (p.red < 250 || p.green < 250 || p.blue < 250)) ++drawn;
        }
    }
    return all == 0 ? 0 : static_cast<double>(drawn) / all;
}

int main() {
    check("version number", std::to_string(krcommonVersionNumber), std::to_string(1.0));
    check("version string", reinterpret_cast<const char*>(krcommonVersionString),
          "@(#)PROGRAM:krcommon  PROJECT:krcommon-1\n");

    check("md5", EncryptCommon::md5Str("abc"), "900150983cd24fb0d6963f7d28e17f72");

    const platform::Dictionary params{{"b", "x y"}, {"a", "1&2"}, {"c", "\xE4\xBD\xA0"}};
    check("query", KRQueryStringFromParameters(params).value_or("(nullopt)"), "a=1%262&b=x%20y&c=%E4%BD%A0");

    check("format", platform::format("%@-%d", platform::Value("abc"), 42), "abc-42");

    check("protocol version", KIHostService::service().loginProtocolVersion(), "301");
    check("core URL", KIHostService::hostCoreConvertWith(platform::Value("h.example")).value_or("(nullopt)"),
          "https://h.example/kruser.core.login/v3");

    // The picture covers about three quarters of its square; a page without it, none.
    auto page = MM404H5View::initWithFrame({{0, 0}, {375, 667}});
    const auto drawing = platform::Renderer::renderImage(*page, 2);
    const double coverage = drawing ? pictureCoverage(*drawing, page->mm404ImageView()->frame(), 2) : 0;
    check("error page picture", coverage > 0.5 ? "drawn" : "missing (" + std::to_string(coverage) + ")", "drawn");

    if (failures == 0) std::puts("krcommon consumer: all checks passed");
    return failures == 0 ? 0 : 1;
}

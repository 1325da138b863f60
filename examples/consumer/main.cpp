// A program outside the krcommon tree that uses the installed library: it is built
// against an installed prefix (CMake package or pkg-config) and checks a few answers
// that only the real library gives. Exits 1 on the first wrong one.
//
//   krcommon-consumer [--resources <dir>]
//
// With --resources it also checks that the library found its resource folder
// beside itself, i.e. that the library it loaded is the one installed in <dir>/../..

#include <krcommon/krcommon.h>
#include <krcommon/platform/ui/ModuleResources.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>

using namespace krcommon;

static int failures = 0;

static void check(const char* what, const std::string& got, const std::string& expected) {
    if (got == expected) return;
    std::fprintf(stderr, "%s: got \"%s\", expected \"%s\"\n", what, got.c_str(), expected.c_str());
    ++failures;
}

int main(int argc, char** argv) {
    check("version number", std::to_string(krcommonVersionNumber), std::to_string(1.0));
    check("version string", reinterpret_cast<const char*>(krcommonVersionString),
          "@(#)PROGRAM:krcommon  PROJECT:krcommon-1\n");

    check("md5", EncryptCommon::md5Str("abc"), "900150983cd24fb0d6963f7d28e17f72");

    const platform::Dictionary params{{"b", "x y"}, {"a", "1&2"}, {"c", "\xE4\xBD\xA0"}};
    check("query", KRQueryStringFromParameters(params).value_or("(nullopt)"), "a=1%262&b=x%20y&c=%E4%BD%A0");

    check("format", platform::format("%@-%d", platform::Value("abc"), 42), "abc-42");

    auto& hosts = KIHostService::service();
    check("protocol version", hosts.loginProtocolVersion(), "301");
    check("core URL", KIHostService::hostCoreConvertWith(platform::Value("h.example")).value_or("(nullopt)"),
          "https://h.example/kruser.core.login/v3");

    if (argc == 3 && std::strcmp(argv[1], "--resources") == 0) {
        const auto found = platform::ModuleResources::directory();
        std::error_code error;
        if (!std::filesystem::equivalent(found, argv[2], error)) check("resources", found.string(), argv[2]);
        check("error page picture", std::filesystem::exists(found / "mm404Image.png") ? "present" : "missing",
              "present");
    }

    if (failures == 0) std::puts("krcommon consumer: all checks passed");
    return failures == 0 ? 0 : 1;
}

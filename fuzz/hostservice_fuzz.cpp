// The endpoint registry fed host dictionaries of any shape: keys present or
// not, values of every kind (strings of any bytes, numbers, null, nested
// collections). Every getter must answer afterwards, a string account host
// must give its login URL, and Base64 decoding of arbitrary text must either
// refuse or give valid UTF-8.

#include <krcommon/config/KIHostService.h>
#include <krcommon/platform/io/UTF8.h>

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <cstdlib>
#include <string>

using krcommon::KIHostService;
using namespace krcommon::platform;

namespace {

Value anyValue(FuzzedDataProvider& in, int depth) {
    switch (in.ConsumeIntegralInRange<int>(0, depth > 2 ? 5 : 7)) {
        case 0: return Value();
        case 1: return Value(Null{});
        case 2: return Value(in.ConsumeIntegral<std::int64_t>());
        case 3: return Value(in.ConsumeFloatingPoint<double>());
        case 4: return Value(in.ConsumeBool());
        case 5: return Value(in.ConsumeRandomLengthString(64));
        case 6: {
            Array a;
            for (int n = in.ConsumeIntegralInRange<int>(0, 3); n > 0; --n) a.push_back(anyValue(in, depth + 1));
            return Value(std::move(a));
        }
        default: {
            Dictionary d;
            for (int n = in.ConsumeIntegralInRange<int>(0, 3); n > 0; --n)
                d.set(in.ConsumeRandomLengthString(8), anyValue(in, depth + 1));
            return Value(std::move(d));
        }
    }
}

void readEverything(const KIHostService& s) {
    std::size_t total = 0;
    for (const std::string& text :
         {s.login_main_host(), s.login_main_url_noCore(), s.login_main_url(), s.login_master_url(),
          s.login_primary_url(), s.kr_kruser_ssl_main_url(), s.kr_kruser_ssl_master_url(),
          s.kr_kruser_ssl_primary_url(), s.regist_main_url(), s.keep_alive_url(), s.staticHost(),
          s.realNameSmsH5(), s.defaultReviewUrl(), s.ChangePswUrl(), s.BindPhoneNumUrl(), s.kr_product_id_url(),
          s.kr_generate_order_url(), s.kr_mmtp_generate_order_url(), s.kr_report_normal_receipt_url(),
          s.kr_push_notification_url(), s.verifyCodeServer2(), s.kr_oauth_login_url()})
        total += text.size();
    if (total == 0) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider in(data, size);
    static KIHostService& shared = KIHostService::service();  // updates pile up across runs
    KIHostService fresh;

    const char* keys[] = {"accountHost", "accountHost2", "accountHost3", "registHost", "channelHost",
                          "webHost",     "paycenter",    "paygateway",   "pushgateway", "other"};
    Dictionary hosts;
    for (const char* key : keys) {
        if (in.ConsumeBool()) hosts.set(key, anyValue(in, 0));
    }
    const Value argument = in.ConsumeIntegralInRange<int>(0, 15) == 0 ? anyValue(in, 0) : Value(hosts);
    shared.updateHostServers(argument);
    fresh.updateHostServers(argument);
    readEverything(shared);
    readEverything(fresh);

    if (const auto* d = argument.dictionary()) {
        if (const auto* account = (*d)["accountHost"].string()) {
            if (fresh.login_main_host() != *account ||
                fresh.login_main_url() != "https://" + *account + "/kruser.core.login/v3")
                std::abort();
        }
    }

    const std::string text = in.ConsumeRemainingBytesAsString();
    if (const auto decoded = KIHostService::debase64With(text); decoded && !UTF8::isValid(*decoded)) std::abort();
    return 0;
}

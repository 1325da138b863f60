// Request encoding: KRQueryStringFromParameters against the same dictionary
// encoded with libcurl's curl_easy_escape (sorted keys, escaped values, joined
// with "&"), and KRJsonFromParameters against RapidJSON's own PrettyWriter
// writing the same document. Response decoding: JSONSerialization::parse against
// RapidJSON parsing the same text into its own document, with the same checks.

#include <krcommon/http/KRRequestSerialization.h>
#include <krcommon/platform/io/JSONSerialization.h>

#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <rapidjson/document.h>
#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

using krcommon::platform::Array;
using krcommon::platform::Dictionary;
using krcommon::platform::Value;

// Parameters shaped like the SDK's: short keys, values with spaces, slashes,
// colons and the odd non-ASCII character.
Dictionary makeParameters(int count) {
    Dictionary d;
    for (int i = 0; i < count; ++i) {
        std::string value = (i % 3 == 0)   ? "https://account.example.test/path/" + std::to_string(i)
                            : (i % 3 == 1) ? "user name " + std::to_string(i) + " \xE5\x90\x8D"
                                           : std::to_string(1000000 + i);
        d.set("key_" + std::to_string((i * 7919) % 100003), std::move(value));
    }
    return d;
}

void KR_QueryString(benchmark::State& state) {
    const Dictionary params = makeParameters(static_cast<int>(state.range(0)));
    for (auto _ : state) benchmark::DoNotOptimize(krcommon::KRQueryStringFromParameters(params));
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(KR_QueryString)->Arg(10)->Arg(1000);

void BASE_QueryString(benchmark::State& state) {
    const Dictionary params = makeParameters(static_cast<int>(state.range(0)));
    CURL* curl = curl_easy_init();
    for (auto _ : state) {
        std::vector<const Dictionary::Entry*> sorted;
        sorted.reserve(params.size());
        for (const auto& e : params) sorted.push_back(&e);
        std::sort(sorted.begin(), sorted.end(), [](auto* a, auto* b) { return a->first < b->first; });
        std::string query;
        for (const auto* e : sorted) {
            if (!query.empty()) query.push_back('&');
            query += e->first;
            query.push_back('=');
            const std::string& v = *e->second.string();
            char* escaped = curl_easy_escape(curl, v.data(), static_cast<int>(v.size()));
            query += escaped;
            curl_free(escaped);
        }
        benchmark::DoNotOptimize(query);
    }
    curl_easy_cleanup(curl);
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BASE_QueryString)->Arg(10)->Arg(1000);

// A statistics batch: a dictionary of base fields and a list of records.
Dictionary makeDocument(int records) {
    Array list;
    for (int i = 0; i < records; ++i) {
        list.push_back(Dictionary{{"reqid", std::to_string(100000 + i)},
                                  {"url", "https://account.example.test/api/v3/login"},
                                  {"code", 200},
                                  {"elapsed", 0.125 + i},
                                  {"ok", i % 2 == 0},
                                  {"msg", "\xE6\x88\x90\xE5\x8A\x9F \"ok\""}});
    }
    return Dictionary{{"appid", "100001"}, {"deviceid", "3F2504E0-4F89-11D3-9A0C-0305E82C3301"},
                      {"version", "1.0.3"}, {"statList", std::move(list)}};
}

void KR_JsonPretty(benchmark::State& state) {
    const Value doc(makeDocument(static_cast<int>(state.range(0))));
    for (auto _ : state) benchmark::DoNotOptimize(krcommon::KRJsonFromParameters(doc));
}
BENCHMARK(KR_JsonPretty)->Arg(5)->Arg(50);

void BASE_JsonPretty(benchmark::State& state) {
    rapidjson::Document d;
    d.SetObject();
    auto& a = d.GetAllocator();
    d.AddMember("appid", "100001", a);
    d.AddMember("deviceid", "3F2504E0-4F89-11D3-9A0C-0305E82C3301", a);
    d.AddMember("version", "1.0.3", a);
    rapidjson::Value list(rapidjson::kArrayType);
    for (int i = 0; i < state.range(0); ++i) {
        rapidjson::Value r(rapidjson::kObjectType);
        r.AddMember("reqid", rapidjson::Value(std::to_string(100000 + i).c_str(), a), a);
        r.AddMember("url", "https://account.example.test/api/v3/login", a);
        r.AddMember("code", 200, a);
        r.AddMember("elapsed", 0.125 + i, a);
        r.AddMember("ok", i % 2 == 0, a);
        r.AddMember("msg", "\xE6\x88\x90\xE5\x8A\x9F \"ok\"", a);
        list.PushBack(r, a);
    }
    d.AddMember("statList", list, a);
    for (auto _ : state) {
        rapidjson::StringBuffer buffer;
        rapidjson::PrettyWriter<rapidjson::StringBuffer> writer(buffer);
        writer.SetIndent(' ', 2);
        d.Accept(writer);
        std::string out(buffer.GetString(), buffer.GetSize());
        benchmark::DoNotOptimize(out);
    }
}
BENCHMARK(BASE_JsonPretty)->Arg(5)->Arg(50);

// The text parsed: a typical account answer (0), or a statistics batch of n records.
std::string parseInput(int records) {
    if (records == 0) return R"({"code":0,"msg":"ok","data":{"uid":"10001","name":"kr","token":"a8f5f167f44f4964e6c998dee827110c"}})";
    return krcommon::KRJsonFromParameters(Value(makeDocument(records))).value_or("");
}

void KR_JsonParse(benchmark::State& state) {
    const std::string text = parseInput(static_cast<int>(state.range(0)));
    for (auto _ : state) benchmark::DoNotOptimize(krcommon::platform::JSONSerialization::parse(text));
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}
BENCHMARK(KR_JsonParse)->Arg(0)->Arg(5)->Arg(50);

void BASE_JsonParse(benchmark::State& state) {
    const std::string text = parseInput(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        rapidjson::Document d;
        d.Parse<rapidjson::kParseValidateEncodingFlag | rapidjson::kParseIterativeFlag>(text.data(), text.size());
        benchmark::DoNotOptimize(d);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}
BENCHMARK(BASE_JsonParse)->Arg(0)->Arg(5)->Arg(50);

}  // namespace

BENCHMARK_MAIN();

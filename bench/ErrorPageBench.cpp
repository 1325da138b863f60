// The error page: created, laid out and rendered to a PNG file at 375 x 667
// points and scale 2, against the floor of that work: cairo filling a surface of
// the same size and writing it as PNG.

#include <krcommon/errorpage/MM404H5View.h>
#include <krcommon/platform/ui/Renderer.h>

#include <benchmark/benchmark.h>
#include <cairo.h>

#include <filesystem>
#include <string>

namespace {

const std::filesystem::path kOut = std::filesystem::temp_directory_path() / "krcommon-bench-page.png";

void KR_RenderPage(benchmark::State& state) {
    for (auto _ : state) {
        auto page = krcommon::MM404H5View::initWithFrame({{0, 0}, {375, 667}});
        page->layoutIfNeeded();
        if (!krcommon::platform::Renderer::renderToPNG(*page, kOut, 2)) state.SkipWithError("render failed");
    }
    state.SetLabel(std::to_string(std::filesystem::file_size(kOut)) + " bytes");
}
BENCHMARK(KR_RenderPage)->Unit(benchmark::kMillisecond);

void BASE_RenderPage(benchmark::State& state) {
    for (auto _ : state) {
        cairo_surface_t* surface = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, 750, 1334);
        cairo_t* cr = cairo_create(surface);
        cairo_set_source_rgb(cr, 1, 1, 1);
        cairo_paint(cr);
        cairo_destroy(cr);
        cairo_surface_write_to_png(surface, kOut.c_str());
        cairo_surface_destroy(surface);
    }
}
BENCHMARK(BASE_RenderPage)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();

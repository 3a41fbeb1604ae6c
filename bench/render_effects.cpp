// Effects on a phone-sized screen: (a) 130 outer shadows (blur 8, offset 0/4)
// on 100×50 rounded rectangles spread over a 1280×2326 artboard at scale 1,
// the load of a shadow-heavy design (goal: the whole screen well under 300 ms,
// so each shadow far below 2 ms); (b) inner shadows alike; (c) one Gaussian
// layer blur (radius 20) of a full 1280×2326 ARGB32 surface.

#include "Effects.h"

#include <benchmark/benchmark.h>
#include <cairo.h>

#include <vector>

using namespace plexa::render;

namespace {

constexpr int kWidth = 1280, kHeight = 2326, kShapes = 130;

Path roundedRect(double x, double y, double w, double h, double r) {
  const double k = 0.5523 * r;
  Path p;
  p.moveTo({x + r, y});
  p.lineTo({x + w - r, y});
  p.cubicTo({x + w - r + k, y}, {x + w, y + r - k}, {x + w, y + r});
  p.lineTo({x + w, y + h - r});
  p.cubicTo({x + w, y + h - r + k}, {x + w - r + k, y + h}, {x + w - r, y + h});
  p.lineTo({x + r, y + h});
  p.cubicTo({x + r - k, y + h}, {x, y + h - r + k}, {x, y + h - r});
  p.lineTo({x, y + r});
  p.cubicTo({x, y + r - k}, {x + r - k, y}, {x + r, y});
  p.close();
  return p;
}

std::vector<Path> shapes() {
  std::vector<Path> paths;
  for (int i = 0; i < kShapes; ++i)
    paths.push_back(roundedRect(40 + (i % 10) * 120, 40 + (i / 10) * 170, 100, 50, 8));
  return paths;
}

std::vector<Shadow> oneShadow() {
  Shadow s;
  s.color = {0, 0, 0, 0.25};
  s.offsetY = 4;
  s.blurRadius = 8;
  return {s};
}

void BM_OuterShadows130(benchmark::State& state) {
  cairo_surface_t* screen = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, kWidth, kHeight);
  cairo_t* cr = cairo_create(screen);
  auto paths = shapes();
  auto shadows = oneShadow();
  for (auto _ : state) {
    for (const Path& path : paths) paintOuterShadows(cr, path, Silhouette{}, shadows);
    cairo_surface_flush(screen);
  }
  state.counters["per_shadow_us"] =
      benchmark::Counter(kShapes, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert,
                         benchmark::Counter::kIs1000);
  cairo_destroy(cr);
  cairo_surface_destroy(screen);
}
BENCHMARK(BM_OuterShadows130)->Unit(benchmark::kMillisecond);

void BM_InnerShadows130(benchmark::State& state) {
  cairo_surface_t* screen = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, kWidth, kHeight);
  cairo_t* cr = cairo_create(screen);
  auto paths = shapes();
  auto shadows = oneShadow();
  for (auto _ : state) {
    for (const Path& path : paths) paintInnerShadows(cr, path, shadows);
    cairo_surface_flush(screen);
  }
  cairo_destroy(cr);
  cairo_surface_destroy(screen);
}
BENCHMARK(BM_InnerShadows130)->Unit(benchmark::kMillisecond);

void BM_GaussianBlurFullScreen(benchmark::State& state) {
  cairo_surface_t* screen = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, kWidth, kHeight);
  cairo_t* cr = cairo_create(screen);
  cairo_set_source_rgba(cr, 0.2, 0.4, 0.8, 0.9);
  for (const Path& path : shapes()) path.appendTo(cr);
  cairo_fill(cr);
  cairo_destroy(cr);
  for (auto _ : state) gaussianBlur(screen, static_cast<double>(state.range(0)));
  cairo_surface_destroy(screen);
}
BENCHMARK(BM_GaussianBlurFullScreen)->Arg(2)->Arg(20)->Arg(100)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();

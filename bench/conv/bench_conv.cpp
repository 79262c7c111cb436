// Conversion speed beside two yardsticks measured in the same run: a plain
// memcpy of the destination size (the memory limit) and OpenCV's cvtColor
// where it does comparable work. Names: <case>/<width>x<height>/t<threads>.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "conv/bmpinfo.h"
#include "conv/conv.h"
#include "conv/pixel_format.h"

#ifdef KIVCAM_BENCH_OPENCV
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#endif

namespace {

using namespace kivcam::conv;

struct Case {
  const char* name;
  uint32_t kind;
  uint32_t out;     // 0 = 32-bit, 1 = 24-bit
  uint32_t shift;
  uint64_t srcBytesPerRowNum, srcBytesPerRowDen;  // source bytes per pixel as a fraction
  uint32_t smoothing = 0;
};

constexpr Case kCases[] = {
    {"Bayer8_24", KIND_BAYER8, 1, 0, 1, 1},
    {"Bayer8_32", KIND_BAYER8, 0, 0, 1, 1},
    {"Bayer8smooth_24", KIND_BAYER8, 1, 0, 1, 1, 1},
    {"Bayer16_24", KIND_BAYER16, 1, 4, 2, 1},
    {"Bayer12p_24", KIND_BAYER12_PACKED, 1, 0, 3, 2},
    {"Mono8_24", KIND_MONO8, 1, 0, 1, 1},
    {"Mono12_24", KIND_MONO16, 1, 4, 2, 1},
    {"Mono12p_24", KIND_MONO12_PACKED, 1, 0, 3, 2},
    {"RGB8_24", KIND_RGB8, 1, 0, 3, 1},
    {"BGRA8_32", KIND_BGRA8, 0, 0, 4, 1},
    {"UYVY_24", KIND_YUV422_UYVY, 1, 0, 2, 1},
    {"YUYV_24", KIND_YUV422_YUYV, 1, 0, 2, 1},
    {"YUV411_24", KIND_YUV411, 1, 0, 3, 2},
    {"RGB10p32_24", KIND_RGB10P32, 1, 0, 4, 1},
};

constexpr uint32_t kSizes[][2] = {{1920, 1200}, {4096, 3000}};

std::vector<uint8_t> Noise(size_t n) {
  std::vector<uint8_t> v(n);
  std::mt19937 rng(42);
  for (auto& b : v) b = static_cast<uint8_t>(rng());
  return v;
}

void Engine(benchmark::State& st, Case c, uint32_t w, uint32_t h, int threads) {
  const auto src = Noise(w * h * c.srcBytesPerRowNum / c.srcBytesPerRowDen + 16);
  std::vector<uint8_t> dst(DestStride(c.out, w) * h);
  CConv conv(ConvMode{0, c.shift, c.out, c.smoothing, threads > 1 ? 1u : 0u}, kDefaultYuvCoef, threads);
  const ConvReq r{w, h, c.kind, PHASE_RG, 1, src.data(), dst.data()};
  for (auto _ : st) {
    conv.Convert(r);
    benchmark::DoNotOptimize(dst.data());
    benchmark::ClobberMemory();
  }
  st.SetBytesProcessed(int64_t(st.iterations()) * int64_t(dst.size()));
}

void Memcpy(benchmark::State& st, uint32_t out, uint32_t w, uint32_t h) {
  const size_t n = DestStride(out, w) * h;
  const auto src = Noise(n);
  std::vector<uint8_t> dst(n);
  for (auto _ : st) {
    std::memcpy(dst.data(), src.data(), n);
    benchmark::DoNotOptimize(dst.data());
    benchmark::ClobberMemory();
  }
  st.SetBytesProcessed(int64_t(st.iterations()) * int64_t(n));
}

#ifdef KIVCAM_BENCH_OPENCV
void OpenCv(benchmark::State& st, int code, int srcType, int srcCols, uint32_t w, uint32_t h,
            int threads) {
  cv::setNumThreads(threads);
  cv::Mat src(static_cast<int>(h), srcCols, srcType);
  cv::randu(src, 0, 255);
  cv::Mat dst;
  cv::cvtColor(src, dst, code);
  for (auto _ : st) {
    cv::cvtColor(src, dst, code);
    benchmark::DoNotOptimize(dst.data);
    benchmark::ClobberMemory();
  }
  st.SetBytesProcessed(int64_t(st.iterations()) * int64_t(dst.total() * dst.elemSize()));
  (void)w;
}
#endif

void RegisterAll() {
  for (const auto& sz : kSizes) {
    const uint32_t w = sz[0], h = sz[1];
    const std::string dim = "/" + std::to_string(w) + "x" + std::to_string(h);
    for (int t : {1, 2}) {
      const std::string th = "/t" + std::to_string(t);
      for (const Case& c : kCases) {
        benchmark::RegisterBenchmark((std::string(c.name) + dim + th).c_str(), Engine, c, w, h, t)
            ->Unit(benchmark::kMillisecond)->UseRealTime();
      }
#ifdef KIVCAM_BENCH_OPENCV
      const int W = static_cast<int>(w);
      struct Cv { const char* name; int code; int type; int cols; };
      const Cv cvCases[] = {
          {"cv_Bayer8_24", cv::COLOR_BayerBG2BGR, CV_8UC1, W},
          {"cv_Bayer8_32", cv::COLOR_BayerBG2BGRA, CV_8UC1, W},
          {"cv_UYVY_24", cv::COLOR_YUV2BGR_UYVY, CV_8UC2, W},
          {"cv_YUYV_24", cv::COLOR_YUV2BGR_YUYV, CV_8UC2, W},
          {"cv_Mono8_24", cv::COLOR_GRAY2BGR, CV_8UC1, W},
          {"cv_RGB8_24", cv::COLOR_RGB2BGR, CV_8UC3, W},
      };
      for (const Cv& c : cvCases) {
        benchmark::RegisterBenchmark((std::string(c.name) + dim + th).c_str(), OpenCv, c.code, c.type,
                                     c.cols, w, h, t)
            ->Unit(benchmark::kMillisecond)->UseRealTime();
      }
#endif
    }
    for (uint32_t out : {1u, 0u}) {
      benchmark::RegisterBenchmark((std::string(out ? "memcpy_24" : "memcpy_32") + dim + "/t1").c_str(),
                                   Memcpy, out, w, h)
          ->Unit(benchmark::kMillisecond)->UseRealTime();
    }
  }
}

// --isa=baseline|avx2 caps the converters' instruction set (default: the
// widest the CPU has), to compare the builds side by side.
bool TakeIsaFlag(int& argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (a.rfind("--isa=", 0) != 0) continue;
    const std::string v = a.substr(6);
    if (v != "baseline" && v != "avx2" && v != "avx512") return false;
    LimitConverters(v == "baseline" ? ConvIsa::kBaseline : v == "avx2" ? ConvIsa::kAvx2 : ConvIsa::kAvx512);
    for (int j = i; j + 1 < argc; ++j) argv[j] = argv[j + 1];
    --argc;
    --i;
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (!TakeIsaFlag(argc, argv)) {
    std::fprintf(stderr, "--isa takes baseline, avx2 or avx512\n");
    return 1;
  }
  RegisterAll();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}

#include "conv/conv.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <new>

#include <omp.h>

#include "conv/converters.h"
#include "conv/pixel_format.h"

namespace kivcam::conv {

bool IsValidConvMode(const ConvMode& mode, bool cameraEngine) {
  if (mode.geometry > 3 || mode.output > 1) return false;
  if (mode.shift <= 8) return true;
  return cameraEngine && mode.shift == 0xFFFFFFFFu;
}

CConv::CConv(const ConvMode& mode, const YuvCoef& coef, int threads)
    : geometry_(mode.geometry),
      shift_(static_cast<int32_t>(mode.shift)),
      requested_shift_(static_cast<int32_t>(mode.shift)),
      output_(mode.output),
      smoothing_(mode.smoothing != 0),
      parallel_(mode.parallel != 0),
      threads_(threads) {
  for (int i = 0; i < 4; ++i) coef_[i] = coef.coef[i];
}

CConv::~CConv() { delete[] table_.load(); }

void CConv::ResolveShift(uint32_t kind, uint32_t bits) {
  if (requested_shift_ != -1) {
    shift_ = requested_shift_;
  } else if (kind == KIND_MONO16 || kind == KIND_BAYER16) {
    shift_ = static_cast<int32_t>(bits) - 8;
  } else if (kind == KIND_RGB16 || kind == KIND_BGR16) {
    shift_ = static_cast<int32_t>(bits / 3) - 8;
  }
}

const int32_t* CConv::YuvTable() {
  int32_t* t = table_.load(std::memory_order_acquire);
  if (t) return t;
  std::lock_guard<std::mutex> g(lock_);
  t = table_.load(std::memory_order_relaxed);
  if (t) return t;
  t = new (std::nothrow) int32_t[4 * 256 + 5];
  if (!t) return nullptr;
  bool exact = true;
  for (int c = 0; c < 4; ++c) {
    for (int i = 0; i < 256; ++i) {
      t[c * 256 + i] = static_cast<int32_t>((i - 128) * coef_[c]);  // truncates toward zero
    }
    // A 16-bit fixed-point multiplier that gives every entry, if one does.
    const bool inRange = coef_[c] >= 0 && coef_[c] < 4;
    const int32_t k = inRange ? static_cast<int32_t>(std::ceil(coef_[c] * 65536)) : 0;
    for (int i = 0; i < 256 && exact; ++i) {
      const int32_t d = i - 128, m = ((d < 0 ? -d : d) * k) >> 16;
      exact = inRange && (d < 0 ? -m : m) == t[c * 256 + i];
    }
    t[1024 + c] = k;
  }
  t[1028] = exact;
  table_.store(t, std::memory_order_release);
  return t;
}

namespace {
std::atomic<ConvIsa> g_widest{ConvIsa::kAvx512};

ConvIsa CpuIsa() {
#ifdef KIVCONV_HAVE_AVX2
  static const ConvIsa isa = !__builtin_cpu_supports("avx2") ? ConvIsa::kBaseline
                             : __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
                                     __builtin_cpu_supports("avx512vbmi")
                                 ? ConvIsa::kAvx512
                                 : ConvIsa::kAvx2;
  return isa;
#else
  return ConvIsa::kBaseline;
#endif
}
}  // namespace

void LimitConverters(ConvIsa widest) { g_widest.store(widest); }

PairMul PairMultipliers(const int32_t* mul, bool uLow) {
  auto two = [](int32_t first, int32_t second) { return (uint32_t(second) & 0xFFFF) << 16 | (uint32_t(first) & 0xFFFF); };
  const int br0 = uLow ? 3 : 0, br1 = uLow ? 0 : 3, g0 = uLow ? 2 : 1, g1 = uLow ? 1 : 2;
  return {two(mul[br0] >> 16, mul[br1] >> 16), two(mul[br0] & 0xFFFF, mul[br1] & 0xFFFF),
          two(mul[g0] >> 16, mul[g1] >> 16), two(mul[g0] & 0xFFFF, mul[g1] & 0xFFFF),
          mul[0] >> 16 == 1 && mul[3] >> 16 == 1 && mul[1] >> 16 == 0 && mul[2] >> 16 == 0};
}

int TeamSize(const ConvParams& p) {
  if (!p.parallel) return 1;
  return p.threads > 0 ? p.threads : omp_get_max_threads();
}

int CConv::Convert(const ConvReq& r) {
  if (r.width == 0 || r.height == 0) return kConvOk;
  const uint32_t k = r.kind;
  if (IsBayerKind(k) && (r.width < 2 || r.height < 2)) return kConvBadArg;
  if ((k == KIND_YUV422_UYVY || k == KIND_YUV422_YUYV || k == KIND_YCBCR422) && r.width < 2) {
    return kConvBadArg;
  }
  if (k == KIND_YUV411 && r.width < 3) return kConvBadArg;

  ConvParams p{};
  p.geometry = geometry_;
  // -1 unresolved: take the top byte of the word rather than shifting by 31.
  p.shift = shift_ == -1 ? 8u : static_cast<uint32_t>(shift_);
  p.smoothing = smoothing_;
  p.parallel = parallel_;
  p.threads = threads_;
  if (IsYuvKind(k)) {
    p.table = YuvTable();
    if (!p.table) return kConvNoMemory;
    if (p.table[1028]) p.tableMul = p.table + 1024;
  }
  const bool out24 = output_ == 1;
  const ConvIsa isa = std::min(CpuIsa(), g_widest.load(std::memory_order_relaxed));
  const bool avx2 = isa >= ConvIsa::kAvx2;
  p.avx512 = isa == ConvIsa::kAvx512;
  if (IsBayerKind(k)) {
    if (p.avx512) {
      avx512::BayerConvert(p, r, out24);
    } else {
      avx2 ? avx2::BayerConvert(p, r, out24) : base::BayerConvert(p, r, out24);
    }
  } else {
    avx2 ? avx2::LineConvert(p, r, out24) : base::LineConvert(p, r, out24);
  }
  return kConvOk;
}

int CConv::Exec(const ImageDesc& image, void* dst) {
  if (!dst || image.byteOrder > 1) return kConvBadArg;
  uint32_t phase = 0, bits = 0;
  const uint32_t kind = PixelFormatToConvKind(image.pixelFormat, &phase, &bits);
  if (kind == KIND_UNSUPPORTED) return kConvBadArg;
  if (!image.data && image.width != 0 && image.height != 0) return kConvBadArg;
  ConvReq r{image.width, image.height, kind, phase, image.byteOrder, image.data, dst};
  return Convert(r);
}

}  // namespace kivcam::conv

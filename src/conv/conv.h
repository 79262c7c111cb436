// The conversion engine: settings fixed at creation, one entry point that
// picks the converter for a request.
//
// Decisions where the behaviour is otherwise open:
// - An empty image (width or height 0) converts nothing and succeeds.
// - Bayer images narrower or lower than 2 pixels are refused (kConvBadArg):
//   demosaicing needs one complete 2x2 cell.
// - YUV kinds that share chroma across a pair (UYVY, YUYV, YCbCr422) with
//   width 1, and YUV411 with width 1 or 2, are refused (kConvBadArg): their
//   incomplete last group has no previous group to borrow chroma from.
// - RGB565/BGR565 keep the raw 5- and 6-bit field values, not widened.
// - A camera engine whose automatic shift (-1) has not been resolved yet
//   converts 16-bit samples with shift 8, the most significant byte.
// - A 32-bit pixel is stored as a whole word whose fourth byte is the value
//   the buffer held, so that byte keeps its contents.
// - Parallel conversions give exactly the serial bytes. Green smoothing works
//   in place and every site reads neighbours already smoothed above and to
//   the left, so it runs on one thread after the parallel part.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

#include "conv/conv_types.h"

namespace kivcam::conv {

// Root of the engine family; handles are tested against it at run time.
class CBaseConv {
 public:
  virtual ~CBaseConv() = default;
};

// Settings a converter runs with.
struct ConvParams {
  uint32_t geometry;
  uint32_t shift;        // applied mod 32
  bool smoothing;
  bool parallel;
  int threads;           // team size when parallel; 0 = the runtime's default
  const int32_t* table;  // YUV table [4][256], null for non-YUV kinds
  // Multipliers that reproduce the table exactly as ((|i - 128| * k) >> 16)
  // with the sign of i - 128, or null when no such multipliers exist; lets
  // vector code compute entries instead of gathering them.
  const int32_t* tableMul;
  bool avx512;  // the AVX2 converters may use the AVX-512 loops
};

constexpr ConvMode kDefaultHandleMode{0, 0, 0, 0, 0};
constexpr ConvMode kDefaultCameraMode{0, 0xFFFFFFFFu, 0, 0, 0};
constexpr YuvCoef kDefaultYuvCoef{{1.402, 0.711, 0.343, 1.772}};

// Range checks of the exports: geometry 0..3, output 0..1, shift 0..8, and
// for camera engines also -1 (automatic).
bool IsValidConvMode(const ConvMode& mode, bool cameraEngine);

// The widest instruction set the converters may use, for tests and
// benchmarks that compare them; every set gives the same bytes. The
// converters still use no more than the CPU has.
enum class ConvIsa { kBaseline, kAvx2, kAvx512 };
void LimitConverters(ConvIsa widest);

class CConv : public CBaseConv {
 public:
  // threads: team size of parallel conversions, 0 = the runtime's default.
  explicit CConv(const ConvMode& mode = kDefaultHandleMode, const YuvCoef& coef = kDefaultYuvCoef,
                 int threads = 0);
  ~CConv() override;
  CConv(const CConv&) = delete;
  CConv& operator=(const CConv&) = delete;

  // Runs the converter of the request's kind and output form. Kinds without a
  // converter write nothing and succeed. Returns kConvOk, kConvBadArg (image
  // size the converter cannot handle) or kConvNoMemory (YUV table).
  int Convert(const ConvReq& req);

  // Builds the request from an image description: kConvBadArg for null
  // pointers, an unknown pixel format or a byte-order field above 1.
  int Exec(const ImageDesc& image, void* dst);

  // Resolves the automatic shift when a camera starts acquiring: kinds Mono16
  // and Bayer16 use bits - 8, RGB16 and BGR16 bits / 3 - 8. A requested
  // shift other than -1 is used as it is. The camera calls this under its
  // conversion lock, so no conversion runs meanwhile.
  void ResolveShift(uint32_t kind, uint32_t bits);

  // The YUV table, created on first use; null when it cannot be allocated.
  // Four multipliers and a flag follow the 1024 entries (see tableMul).
  const int32_t* YuvTable();

  uint32_t Geometry() const { return geometry_; }
  int32_t Shift() const { return shift_; }
  int32_t RequestedShift() const { return requested_shift_; }
  uint32_t OutputSelector() const { return output_; }
  bool Smoothing() const { return smoothing_; }
  bool Parallel() const { return parallel_; }
  const double* Coef() const { return coef_; }

 private:
  std::mutex lock_;  // guards the creation of the table
  double coef_[4];
  uint32_t geometry_;
  int32_t shift_;
  int32_t requested_shift_;
  uint32_t output_;
  bool smoothing_;
  bool parallel_;
  int threads_;
  std::atomic<int32_t*> table_{nullptr};
};

}  // namespace kivcam::conv

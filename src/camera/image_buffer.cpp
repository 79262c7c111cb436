#include "camera/image_buffer.h"

#include <cstdlib>
#include <cstring>

namespace kivcam::camera {

namespace {
// Records are never reused: the space bounds how many buffers a library
// object can allocate in its life (a billion).
constexpr size_t kRecordSpace = size_t(64) << 30;
// Pixel memory suits the widest vector loads of the converters.
constexpr size_t kDataAlignment = 64;
}  // namespace

static_assert(sizeof(ImageBuffer) <= 64, "an image record fits its slot");

Image_Buffer::~Image_Buffer() {
  std::free(data_);
  pool_->Release(record_);
}

CBufferPool::CBufferPool()
    : space_(platform::AddressReservation::Reserve(kRecordSpace)), page_(platform::AddressReservation::PageSize()) {}

CBufferPool::~CBufferPool() = default;

std::unique_ptr<Image_Buffer> CBufferPool::Create(const void* owner, uint32_t bytes) {
  size_t rounded = (size_t{bytes} + kDataAlignment - 1) / kDataAlignment * kDataAlignment;
  auto* data = static_cast<uint8_t*>(std::aligned_alloc(kDataAlignment, rounded ? rounded : kDataAlignment));
  if (!data) return nullptr;
  std::lock_guard<std::mutex> g(mutex_);
  if (!space_ || next_ + kStride > space_->size()) {
    std::free(data);
    return nullptr;
  }
  size_t page = next_ / page_;
  if (next_ % page_ == 0) {
    if (!space_->Commit(page * page_, page_)) {
      std::free(data);
      return nullptr;
    }
    live_in_page_.resize(page + 1, 0);
  }
  auto* record = reinterpret_cast<ImageBuffer*>(space_->base() + next_);
  next_ += kStride;
  std::memset(record, 0, sizeof *record);
  ++live_in_page_[page];
  owners_.emplace(reinterpret_cast<uintptr_t>(record), owner);
  return std::unique_ptr<Image_Buffer>(new Image_Buffer(this, record, data));
}

const void* CBufferPool::OwnerOf(const void* p) {
  std::lock_guard<std::mutex> g(mutex_);
  auto it = owners_.find(reinterpret_cast<uintptr_t>(p));
  return it == owners_.end() ? nullptr : it->second;
}

void CBufferPool::Release(ImageBuffer* record) {
  std::lock_guard<std::mutex> g(mutex_);
  uintptr_t at = reinterpret_cast<uintptr_t>(record);
  owners_.erase(at);
  size_t offset = at - space_->base();
  size_t page = offset / page_;
  // A page whose records are all gone, and that gets no new ones, gives its
  // memory back; reading a freed record then faults instead of lying.
  if (--live_in_page_[page] == 0 && page != next_ / page_) space_->Decommit(page * page_, page_);
}

}  // namespace kivcam::camera

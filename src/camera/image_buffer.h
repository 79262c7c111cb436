// Image buffers: the record the application reads and passes back, an
// ImageBuffer at an address this process never hands out again, and the pixel
// memory it describes. A record's address is its handle, so it must not come
// back to life as another buffer after it was freed.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "kivcam/kivcam.h"
#include "platform/platform.h"

namespace kivcam::camera {

class CBufferPool;

class Image_Buffer {
 public:
  ~Image_Buffer();
  Image_Buffer(const Image_Buffer&) = delete;
  Image_Buffer& operator=(const Image_Buffer&) = delete;

  ImageBuffer* record() const { return record_; }
  uint8_t* data() const { return data_; }

 private:
  friend class CBufferPool;
  Image_Buffer(CBufferPool* pool, ImageBuffer* record, uint8_t* data)
      : pool_(pool), record_(record), data_(data) {}
  CBufferPool* pool_;
  ImageBuffer* record_;
  uint8_t* data_;
};

class CBufferPool {
 public:
  CBufferPool();
  ~CBufferPool();
  CBufferPool(const CBufferPool&) = delete;
  CBufferPool& operator=(const CBufferPool&) = delete;

  // A buffer of `owner` with `bytes` of pixel memory (uninitialised) and a
  // zeroed record; null when memory or record space runs out.
  std::unique_ptr<Image_Buffer> Create(const void* owner, uint32_t bytes);
  // The owner of the live buffer whose record is at `p`; null when `p` is no
  // live record.
  const void* OwnerOf(const void* p);

 private:
  friend class Image_Buffer;
  void Release(ImageBuffer* record);

  static constexpr size_t kStride = 64;  // one record, cache-line aligned
  std::mutex mutex_;
  std::unique_ptr<platform::AddressReservation> space_;
  size_t page_ = 0;
  size_t next_ = 0;                     // offset of the next record ever
  std::vector<uint32_t> live_in_page_;  // records alive per page
  std::unordered_map<uintptr_t, const void*> owners_;
};

}  // namespace kivcam::camera

// Reserved address space.
#include "platform/platform.h"

#include <sys/mman.h>

namespace kivcam::platform {

std::unique_ptr<AddressReservation> AddressReservation::Reserve(size_t bytes) {
  void* p = mmap(nullptr, bytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (p == MAP_FAILED) return nullptr;
  return std::unique_ptr<AddressReservation>(new AddressReservation(reinterpret_cast<uintptr_t>(p), bytes));
}

AddressReservation::~AddressReservation() { munmap(reinterpret_cast<void*>(base_), size_); }

}  // namespace kivcam::platform

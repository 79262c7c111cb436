// Reserved address space.
#include "platform/platform.h"

#include <sys/mman.h>
#include <unistd.h>

namespace kivcam::platform {

std::unique_ptr<AddressReservation> AddressReservation::Reserve(size_t bytes) {
  void* p = mmap(nullptr, bytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (p == MAP_FAILED) return nullptr;
  return std::unique_ptr<AddressReservation>(new AddressReservation(reinterpret_cast<uintptr_t>(p), bytes));
}

AddressReservation::~AddressReservation() { munmap(reinterpret_cast<void*>(base_), size_); }

size_t AddressReservation::PageSize() { return static_cast<size_t>(sysconf(_SC_PAGESIZE)); }

bool AddressReservation::Commit(size_t offset, size_t length) {
  return mprotect(reinterpret_cast<void*>(base_ + offset), length, PROT_READ | PROT_WRITE) == 0;
}

void AddressReservation::Decommit(size_t offset, size_t length) {
  void* p = reinterpret_cast<void*>(base_ + offset);
  madvise(p, length, MADV_DONTNEED);
  mprotect(p, length, PROT_NONE);
}

}  // namespace kivcam::platform

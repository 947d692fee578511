// SPDX-License-Identifier: Apache-2.0
#include "Mem/Local.h"

#include "Lomi/Exception.h"
#include "Mem/ParcelWrapper.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/mman.h>
#include <utility>

namespace Mem {
namespace {

constexpr u64 alignment = 64;

bool moveEachTime() {
#ifdef HOFLOW_TEST_SEAM
   return ParcelWrapper::moveAlways;
#else
   return false;
#endif
}

u64 heapBytes(u64 size) { return (size + alignment - 1) / alignment * alignment; }

} // namespace

u64 multiplyOverflowCheck(u64 count, u64 size) {
   u64 bytes;
   if (__builtin_mul_overflow(count, size, &bytes))
      throw Lomi::MemoryResourceException(fmt::format("{} entries of {} bytes exceed 64 bits", count, size));
   return bytes;
}

Local::Local(Lomi::Platform::DebugHandler const& handler, unsigned, bool heap)
   : Debuggable(handler)
   , heap_(heap) {}

Local::~Local() { detach(); }

void Local::useHeapIs(bool heap) {
   LOMI_ASSERT(!base_, debugHandler(), "the kind of private memory can't change while {} bytes are in use",
               size_);
   heap_ = heap;
}

char* Local::fail(std::string_view what, u64 size, int error) {
   lastError_ = fmt::format("{} of {} bytes of {} memory: {}", what, size, kind(), std::strerror(error));
   return nullptr;
}

char* Local::allocate(u64 size, void* address) {
   if (heap_) {
      auto* const base = static_cast<char*>(std::aligned_alloc(alignment, heapBytes(size)));
      if (base) std::memset(base, 0, heapBytes(size));
      return base;
   }
   void* const base =
       ::mmap(address, roundUpToPage(size), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
   return base == MAP_FAILED ? nullptr : static_cast<char*>(base);
}

void Local::release(char* base, u64 size) {
   if (heap_)
      std::free(base);
   else
      ::munmap(base, roundUpToPage(size));
}

char* Local::attach(u64 size, void* address) {
   detach();
   if (size == 0 || size > maxMappingSize()) return fail("attach", size, EINVAL);
   base_ = allocate(size, address);
   if (!base_) return fail("attach", size, ENOMEM);
   size_ = size;
   return base_;
}

char* Local::resize(u64 size) {
   if (!base_ || size == 0 || size > maxMappingSize()) return fail("resize", size, EINVAL);
   if (heap_ || moveEachTime() || size == spareSize_) {
      char* const fresh = size == spareSize_ ? std::exchange(spare_, nullptr) : allocate(size, nullptr);
      spareSize_ = spare_ ? spareSize_ : 0;
      if (!fresh) return fail("resize", size, ENOMEM);
      std::memcpy(fresh, base_, std::min(size, size_));
      release(base_, size_);
      base_ = fresh;
   } else {
      // What is cut off within the last page must read as zero after a later growth.
      if (size < size_) std::memset(base_ + size, 0, std::min(roundUpToPage(size), size_) - size);
      if (roundUpToPage(size) != roundUpToPage(size_)) {
         void* const fresh = ::mremap(base_, roundUpToPage(size_), roundUpToPage(size), MREMAP_MAYMOVE);
         if (fresh == MAP_FAILED) return fail("resize", size, errno);
         base_ = static_cast<char*>(fresh);
      }
   }
   size_ = size;
   return base_;
}

bool Local::reserve(u64 size) {
   if (size <= size_ || size == spareSize_) return true;
   if (!base_ || size > maxMappingSize()) return fail("reserve", size, EINVAL);
   if (spare_) release(std::exchange(spare_, nullptr), spareSize_);
   spare_ = allocate(size, nullptr);
   spareSize_ = spare_ ? size : 0;
   return spare_ || fail("reserve", size, ENOMEM);
}

void Local::detach() {
   if (spare_) release(std::exchange(spare_, nullptr), std::exchange(spareSize_, 0));
   if (base_) release(base_, size_);
   base_ = nullptr;
   size_ = 0;
}

} // namespace Mem

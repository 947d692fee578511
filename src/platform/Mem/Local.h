// SPDX-License-Identifier: Apache-2.0
// Private memory that can be resized: anonymous pages, or the heap where the owner asks for that. No file, no
// lock. A resize may move the block. One thread per object.
#pragma once

#include "Lomi/Export.h"
#include "Lomi/Trace.h"
#include "Mem/Page.h"

#include <string>
#include <string_view>

namespace Mem {

/// `count` * `size`. Throws Lomi::MemoryResourceException if that exceeds 64 bits.
HOFLOW_EXPORT u64 multiplyOverflowCheck(u64 count, u64 size);

class HOFLOW_EXPORT Local : public Lomi::Debuggable {
public:
   static constexpr unsigned LOCAL_DEFAULT_FLAGS = 0;
   static constexpr std::string_view ANONYMOUS = "anonymous";
   static constexpr std::string_view HEAP = "heap";

   /// 4 GiB minus a page. Nothing is ever mapped beyond that: offsets are 32 bits.
   static constexpr u64 maxMappingSize() { return (u64{1} << 32) - pageSize_; }

   explicit Local(Lomi::Platform::DebugHandler const& handler, unsigned flags = LOCAL_DEFAULT_FLAGS,
                  bool heap = false);
   Local(Local const&) = delete;
   Local& operator=(Local const&) = delete;
   ~Local();

   /// Where the next attach takes its memory. Not while attached.
   void useHeapIs(bool heap);
   std::string_view kind() const { return heap_ ? HEAP : ANONYMOUS; }

   /// Zeroed memory, aligned to 64 bytes. Null with lastError() set if there is none, if `size` is 0 or above
   /// maxMappingSize(). What was attached before is released. `address` is a hint, null for none.
   char* attach(u64 size, void* address = nullptr);
   /// Keeps the contents up to the smaller size; what is new is zero. Null with everything left as it was.
   char* resize(u64 size);
   /// Takes the memory of a later resize to `size` now, beside the present one: that resize can't fail. False
   /// with lastError() set if there is none. Kept until a resize or detach.
   bool reserve(u64 size);
   void detach();

   char* base() const { return base_; }
   u64 mappedSize() const { return size_; }
   std::string const& lastError() const { return lastError_; }

private:
   char* fail(std::string_view what, u64 size, int error);
   char* allocate(u64 size, void* address);
   void release(char* base, u64 size);

   bool heap_;
   char* base_ = nullptr;
   u64 size_ = 0;
   char* spare_ = nullptr;
   u64 spareSize_ = 0;
   std::string lastError_;
};

} // namespace Mem

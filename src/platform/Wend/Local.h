// SPDX-License-Identifier: Apache-2.0
// A resizable private array of flags, one byte each. Indices aren't checked: a walk over damaged links must
// test its index before it asks here.
#pragma once

#include "Lomi/Exception.h"
#include "Lomi/Trace.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace Wend {

template <class T> class Local;

template <> class Local<bool> {
public:
   /// All false. Throws Lomi::MemoryResourceException if memory is short.
   explicit Local(std::size_t size = 0) { grow(size); }
   Local(Lomi::Platform::DebugHandler const&, std::size_t size)
      : Local(size) {}

   bool& operator[](std::size_t index) { return flags_.get()[index]; }
   bool operator[](std::size_t index) const { return flags_.get()[index]; }
   std::size_t size() const { return size_; }

   /// At least `size` flags; the new ones are false. Never shrinks.
   void grow(std::size_t size) {
      if (size <= size_) return;
      // calloc: untouched pages of a large array cost nothing.
      std::unique_ptr<bool[], Free> fresh(static_cast<bool*>(std::calloc(size, sizeof(bool))));
      if (!fresh) throw Lomi::MemoryResourceException(fmt::format("no memory for {} flags", size));
      if (size_) std::memcpy(fresh.get(), flags_.get(), size_);
      flags_ = std::move(fresh);
      size_ = size;
   }

private:
   struct Free {
      void operator()(bool* flags) const { std::free(flags); }
   };
   std::unique_ptr<bool[], Free> flags_;
   std::size_t size_ = 0;
};

} // namespace Wend

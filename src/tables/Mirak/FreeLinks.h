// SPDX-License-Identifier: Apache-2.0
// A private copy of all slots' links, for the time of one compaction. The free list runs through memory in
// the order in which slots were freed, so each step along it would wait for the one before. The copy is taken
// in the order of memory, lies in the caches, and so tells in advance which slots come next. Without memory
// for it everything is right and slower.
#pragma once

#include "Mirak/Deadline.h"
#include "Mirak/SlotLink.h"

#include <algorithm>
#include <memory>
#include <new>

namespace Mirak {

template <class Slot> class FreeLinks {
public:
   /// Nobody changes the links meanwhile, except as nextIs() says.
   FreeLinks(Slot const* slots, u32 count, Deadline& deadline)
      : slots_(slots)
      , count_(count)
      , links_(new (std::nothrow) u32[count]) {
      for (u32 from = 0; links_ && from < count; deadline.check())
         for (u32 const end = std::min(count, from + 1024); from < end; ++from)
            links_[from] = Mem::loadPair(slots[from].link).next;
   }
   u32 next(u32 index) const { return links_ ? links_[index] : Mem::loadPair(slots_[index].link).next; }
   void nextIs(u32 index, u32 next) {
      if (links_) links_[index] = next;
   }

   /// Looks ahead along the list from `head` on, to have slots below `end` close when they are stored to.
   /// @param whole all of each such slot; else the links alone, of those that a purge is going to change
   void startAt(u32 head, u32 end, bool whole) {
      ahead_ = head;
      end_ = end;
      whole_ = whole;
      for (int n = 0; n < distance; ++n) advance();
   }
   /// One slot further. To be called for each slot that the caller is done with.
   void advance() {
      if (!links_ || ahead_ >= count_) return;
      u32 const next = links_[ahead_];
      if (ahead_ < end_ && (whole_ || next >= end_)) {
         auto const* const at = reinterpret_cast<char const*>(slots_ + ahead_);
         Mem::prefetchSharedForStore(at);
         for (std::size_t line = 64; whole_ && line < sizeof(Slot); line += 64)
            Mem::prefetchSharedForStore(at + line);
         if (whole_) Mem::prefetchSharedForStore(at + sizeof(Slot) - 1);
      }
      ahead_ = next;
   }

private:
   static constexpr int distance = 16;
   Slot const* slots_;
   u32 count_;
   std::unique_ptr<u32[]> links_;
   u32 ahead_ = noSlot;
   u32 end_ = 0;
   bool whole_ = false;
};

} // namespace Mirak

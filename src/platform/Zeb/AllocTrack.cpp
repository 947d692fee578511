// SPDX-License-Identifier: Apache-2.0
// The records of tracked classes. See AllocTrack.h.
#include "Zeb/AllocTrack.h"

#include "Zeb/PtrInterface.h"

#include <cstdlib>
#include <cxxabi.h>
#include <memory>
#include <mutex>

namespace Zeb {

namespace {
/// One lock for all classes: objects that are tracked come and go seldom.
struct Records {
   std::mutex lock;
   std::vector<AllocTrackTypeInfo*> known;
};
Records& records() {
   static auto* const all = new Records; // outlives every static object that is tracked
   return *all;
}
} // namespace

void AllocTrackTypeInfo::_trackAllocation(AllocTrackTypeInfo* info, std::type_info const& type,
                                          std::size_t size, std::size_t alignment) {
   std::lock_guard const guard(records().lock);
   if (!info->type_) {
      records().known.push_back(info);
      info->type_ = &type;
      info->alignment_ = alignment;
   }
   ++info->living_;
   ++info->made_;
   info->bytes_ += size;
}

void AllocTrackTypeInfo::trackDeallocation(AllocTrackTypeInfo* info, std::size_t size) {
   std::lock_guard const guard(records().lock);
   --info->living_;
   info->bytes_ -= size;
}

AllocTrackTypeInfo::Figures AllocTrackTypeInfo::figures() const {
   std::lock_guard const guard(records().lock);
   Figures figures{{}, living_, bytes_, made_, alignment_};
   if (type_) figures.typeName = demangled(*type_);
   return figures;
}

std::vector<AllocTrackTypeInfo::Figures> AllocTrackTypeInfo::all() {
   std::vector<AllocTrackTypeInfo*> known;
   {
      std::lock_guard const guard(records().lock);
      known = records().known;
   }
   std::vector<Figures> figures;
   figures.reserve(known.size());
   for (auto const* info : known) figures.push_back(info->figures());
   return figures;
}

void* Impl::allocateTracked(AllocTrackTypeInfo& info, std::type_info const& type, std::size_t size,
                            std::size_t alignment) {
   AllocTrackTypeInfo::_trackAllocation(&info, type, size, alignment);
   try {
      return PtrInterface::zebMemAlloc(size);
   } catch (...) {
      AllocTrackTypeInfo::trackDeallocation(&info, size);
      throw;
   }
}

void Impl::freeTracked(AllocTrackTypeInfo& info, void* memory, std::size_t size) noexcept {
   if (!memory) return;
   AllocTrackTypeInfo::trackDeallocation(&info, size);
   PtrInterface::zebMemFree(memory);
}

std::string demangled(std::type_info const& type) {
   int status = 0;
   std::unique_ptr<char, void (*)(void*)> const text(
       abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), std::free);
   return text ? text.get() : type.name();
}

} // namespace Zeb

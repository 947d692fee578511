// SPDX-License-Identifier: Apache-2.0
// Counts the living objects of a class. Entities and their controls are tracked, so that a leak of one shows
// as a number in a running process. Rows and texts are not: they are values.
//
//    class HoFlowConfig final : public Zeb::Entity, public Zeb::Tracked<HoFlowConfig> { ... };
//
// Tracking is thread-safe.
#pragma once

#include "Lomi/Export.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <typeinfo>
#include <vector>

namespace Zeb {

/// A type's name as the source has it, such as "FlowTracking::HoFlowConfig".
HOFLOW_EXPORT std::string demangled(std::type_info const& type);

class HOFLOW_EXPORT AllocTrackTypeInfo {
public:
   /// What is known of one class.
   struct Figures {
      std::string typeName; ///< demangled, with its namespace
      std::uint64_t living = 0;
      std::uint64_t bytes = 0; ///< of the living
      std::uint64_t made = 0;  ///< since the process began
      std::size_t alignment = 0;
   };

   constexpr AllocTrackTypeInfo() = default;
   AllocTrackTypeInfo(AllocTrackTypeInfo const&) = delete;
   AllocTrackTypeInfo& operator=(AllocTrackTypeInfo const&) = delete;

   /// Records an allocation that is about to be made. @param size @param alignment bytes
   static void _trackAllocation(AllocTrackTypeInfo* info, std::type_info const& type, std::size_t size,
                                std::size_t alignment);
   /// Takes one of them back.
   static void trackDeallocation(AllocTrackTypeInfo* info, std::size_t size);

   Figures figures() const;
   /// Of every class that was ever allocated, in the order of the first time.
   static std::vector<Figures> all();

private:
   std::type_info const* type_ = nullptr; ///< null until the first allocation
   std::uint64_t living_ = 0, bytes_ = 0, made_ = 0;
   std::size_t alignment_ = 0;
};

namespace Impl {
HOFLOW_EXPORT void* allocateTracked(AllocTrackTypeInfo& info, std::type_info const& type, std::size_t size,
                                    std::size_t alignment);
HOFLOW_EXPORT void freeTracked(AllocTrackTypeInfo& info, void* memory, std::size_t size) noexcept;
} // namespace Impl

/// Gives `Self` a tracked operator new. An exception out of its constructor undoes the tracking.
template <class Self> class HOFLOW_EXPORT Tracked {
public:
   static inline constinit AllocTrackTypeInfo zebAllocTrackTypeInfo_;

   static void* operator new(std::size_t size) {
      return Impl::allocateTracked(zebAllocTrackTypeInfo_, typeid(Self), size, alignof(Self));
   }
   static void operator delete(void* memory, std::size_t size) noexcept {
      Impl::freeTracked(zebAllocTrackTypeInfo_, memory, size);
   }

protected:
   ~Tracked() = default;
};

} // namespace Zeb

// SPDX-License-Identifier: Apache-2.0
// Zeb::PtrInterface: base of everything that lives by a reference count and tells others of itself: entities,
// their controls, and the notifiees that listen to them.
//
// Life of a counted object:
//   - it begins with one reference, its maker's; a factory hands that on in a Zeb::Ptr. An object that is a
//     plain variable keeps it to its end;
//   - when the last reference goes, its active notifiees hear onZeroReferences(), on the thread that dropped
//     it. They may take references to it meanwhile: that doesn't begin the farewell again. If none is left
//     afterwards, the object is destroyed; a reference that was kept lets it live on, without a second
//     farewell;
//   - an object whose last reference goes inside one of its own notifications (see NotifieeList::Visit) is
//     let go at the next turn of the thread's event loop, as the caller of the notification still stands in
//     it.
#pragma once

#include "Lomi/Export.h"
#include "Zeb/Ptr.h"

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace Zeb {

struct NotifieeListPtr;
class ZebType;

/// Number of an attribute of a type. Those of values begin at 2, those of entities at 258.
using AttributeId = std::uint32_t;

/// The reference count alone.
class HOFLOW_EXPORT VFPtrInterface {
public:
   /// Whether counts change atomically. False: all pointers to one object are used on one thread. To be set
   /// before a second thread uses any.
   static bool threadSafePointers_;

   VFPtrInterface(VFPtrInterface const&) = delete;
   VFPtrInterface& operator=(VFPtrInterface const&) = delete;

   /// For traces and tests: stale at once where several threads hold references.
   std::uint32_t references() const { return references_; }

protected:
   VFPtrInterface() = default;
   ~VFPtrInterface() = default;

   void countUp() const {
      if (threadSafePointers_) [[unlikely]]
         std::atomic_ref(references_).fetch_add(1);
      else
         ++references_;
   }
   /// True if that was the last one.
   bool countDown() const {
      if (threadSafePointers_) [[unlikely]]
         return std::atomic_ref(references_).fetch_sub(1) == 1;
      return --references_ == 0;
   }

private:
   mutable std::uint32_t references_ = 1;
};

class HOFLOW_EXPORT PtrInterface : public VFPtrInterface {
public:
   class NotifieeConst;

   /// Where its notifiees are; include Zeb/NotifieeList.h to call it.
   virtual NotifieeListPtr notifieeList() const;
   /// An object is active from the moment that it is whole; notifiees hear nothing before they are active,
   /// and nothing of the end of an object that never was.
   virtual void hasNotificationActiveIs(bool active);
   /// The last reference went. Tells the notifiees.
   virtual void zeroReferencesIs(bool zero);
   /// Its type in the registry (Zeb/ZebType.h); none unless overridden.
   virtual ZebType fwkType() const;
   virtual ~PtrInterface();

   bool hasNotificationActive() const { return active_; }

   // For Zeb::Ptr.
   void newReference() const { countUp(); }
   void deleteReference() const noexcept {
      if (countDown()) lastReferenceGone();
   }

   /// Memory of counted objects. @throws std::bad_alloc
   static void* zebMemAlloc(std::size_t bytes);
   static void zebMemFree(void* memory) noexcept;

protected:
   PtrInterface() = default;

private:
   enum class Life : std::uint8_t { alive, farewell, afterFarewell };

   [[gnu::cold]] void lastReferenceGone() const noexcept;

   bool active_ = false;
   mutable bool departing_ = false; ///< waits for the event loop
   mutable Life life_ = Life::alive;
};

/// One who listens to an object. It hears only while it is active, and is counted itself: a list that it is a
/// member of keeps it alive. Operations do nothing unless overridden.
class HOFLOW_EXPORT PtrInterface::NotifieeConst : public PtrInterface {
public:
   static void* operator new(std::size_t size) { return zebMemAlloc(size); }
   static void operator delete(void* memory) noexcept { zebMemFree(memory); }

   /// The object's last reference went. It still stands, all of it.
   virtual void onZeroReferences() {}
   /// An attribute changed. @param key of a collection's row, a copy that is good for this call; null where
   /// the attribute is no collection. What this throws leaves the operation that made the change.
   virtual void onAttribute(AttributeId attribute, void const* key);
};

} // namespace Zeb

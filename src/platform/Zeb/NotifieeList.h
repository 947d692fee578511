// SPDX-License-Identifier: Apache-2.0
// Zeb::NotifieeList: those who listen to one object, told one after the other, on the thread of the change.
//
// Rules of a visit:
//   V1  members are told in the order in which they came
//   V2  members may come and go meanwhile, also those being told, and a notifiee may change the object, which
//       begins a visit within the visit
//   V3  one who came during a visit isn't told by it; one who went isn't told any more
//   V4  one who went is kept until the outermost visit ends: it may be the one that is running
//   V5  what a notifiee throws leaves the visit at once; those behind it aren't told
//   V6  the object isn't destroyed before the outermost visit ends, even if its last reference goes
//
// A visit allocates nothing. The list belongs to its object's thread.
#pragma once

#include "Zeb/PtrInterface.h"

#include <vector>

namespace Zeb {

class HOFLOW_EXPORT NotifieeList {
public:
   using Notifiee = PtrInterface::NotifieeConst;

   /// Marks a stretch in which the object tells others of itself, by a visit or by other callbacks.
   class Visit {
   public:
      explicit Visit(NotifieeList& list)
         : list_(list) {
         ++list_.visits_;
      }
      ~Visit() {
         if (list_.visits_ == 1 && !list_.gone_.empty()) [[unlikely]]
            list_.sweep();
         --list_.visits_;
      }
      Visit(Visit const&) = delete;
      Visit& operator=(Visit const&) = delete;

   private:
      NotifieeList& list_;
   };

   NotifieeList() = default;
   NotifieeList(NotifieeList const&) = delete;
   NotifieeList& operator=(NotifieeList const&) = delete;
   ~NotifieeList() { deleteAll(); }

   /// Tells of an attribute that is no collection, or of all of it.
   void visit(AttributeId attribute) { visit(attribute, nullptr); }
   /// Tells of the row at `key`.
   void visit(AttributeId attribute, void const* key) {
      Visit const visiting(*this);
      // By index, up to the present end: the members may change at every call.
      for (std::size_t i = 0, end = members_.size(); i < end; ++i)
         if (Notifiee* const notifiee = members_[i].get(); notifiee && notifiee->hasNotificationActive())
            notifiee->onAttribute(attribute, key);
   }
   void visitZeroReferences();

   /// Adds a notifiee of `owner`, whose list this is. One that is a member already stays where it is.
   void newMember(PtrInterface const* owner, Ptr<Notifiee> const& notifiee);
   void deleteMember(PtrInterface const* owner, Notifiee const* notifiee);
   void deleteAll();

   bool visiting() const { return visits_ != 0; }
   std::size_t members() const;

private:
   void sweep();

   std::vector<Ptr<Notifiee>> members_; ///< null: went during a visit
   std::vector<Ptr<Notifiee>> gone_;    ///< during this visit
   std::uint32_t visits_ = 0;           ///< nested
};

/// Where an object's notifiees are, as the generic interface hands it round.
struct HOFLOW_EXPORT NotifieeListPtr {
   std::uintptr_t kind = 0;      ///< 1: `list` is the object's list; 0: it has none
   NotifieeList* list = nullptr; ///< owned by the object
   std::uintptr_t unused[2] = {0, 0};

   static void deleteMember(NotifieeListPtr const& list, PtrInterface const* owner,
                            NotifieeList::Notifiee const* notifiee) {
      if (list.list) list.list->deleteMember(owner, notifiee);
   }
};

} // namespace Zeb

// SPDX-License-Identifier: Apache-2.0
// What needs no inlining of notifiee lists: coming and going. See NotifieeList.h.
#include "Zeb/NotifieeList.h"

#include <algorithm>

namespace Zeb {

void NotifieeList::visitZeroReferences() {
   Visit const visiting(*this);
   for (std::size_t i = 0, end = members_.size(); i < end; ++i)
      if (Notifiee* const notifiee = members_[i].get(); notifiee && notifiee->hasNotificationActive())
         notifiee->onZeroReferences();
}

void NotifieeList::newMember(PtrInterface const*, Ptr<Notifiee> const& notifiee) {
   if (std::find(members_.begin(), members_.end(), notifiee) == members_.end()) members_.push_back(notifiee);
}

void NotifieeList::deleteMember(PtrInterface const*, Notifiee const* notifiee) {
   auto const place = std::find_if(members_.begin(), members_.end(),
                                   [&](auto const& member) { return notifiee && member.get() == notifiee; });
   if (place == members_.end()) return;
   if (visits_) {
      gone_.push_back(*place);
      *place = nullptr;
   } else {
      Ptr<Notifiee> const kept = *place; // its end may look at this list
      members_.erase(place);
   }
}

void NotifieeList::deleteAll() {
   for (std::size_t i = members_.size(); i-- > 0;)
      if (Ptr<Notifiee> const member = members_[i]) deleteMember(nullptr, member.get());
}

std::size_t NotifieeList::members() const {
   return static_cast<std::size_t>(
       std::count_if(members_.begin(), members_.end(), [](auto const& member) { return bool(member); }));
}

/// Still within the visit: the end of a notifiee may drop the object, or take others out.
void NotifieeList::sweep() {
   std::erase(members_, nullptr);
   while (!gone_.empty()) std::exchange(gone_, {});
   std::erase(members_, nullptr);
}

} // namespace Zeb

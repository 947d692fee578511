// SPDX-License-Identifier: Apache-2.0
// What a queue's writer asks about those who follow it. The wake-up implements it; the queue itself knows of
// no socket and no process.
//
// All on the writer's thread. asleep() is read after the count of the new entry is stored, and a sleeper is
// marked on the same thread after its position was compared with the queue's last sequence: so a change comes
// either before the comparison, which then wakes, or finds the mark. Nothing else is needed for no wake-up to
// be lost.
#pragma once

#include "Lomi/Export.h"
#include "Rusk/Sequence.h"

#include <string>

namespace Tessel {

class HOFLOW_EXPORT Followers {
public:
   /// Whether wake() has something to do. One private load: asked once a change.
   bool asleep() const { return asleep_; }
   /// Sends a wake-up to every marked sleeper and takes the marks away. Never blocks, never throws.
   virtual void wake() noexcept = 0;
   virtual bool anyConnected() const = 0;
   /// Every connected follower has taken in all changes up to this one; a follower that sweeps has reported
   /// the sweep's start. 0: nobody is connected, or one of them hasn't said.
   virtual Rusk::Sequence reportedByAll() const = 0;
   /// Not 0 if there is a follower of that name and each of them has reported `tail` or more.
   virtual Mem::u64 clientQuiesced(std::string const& name, Rusk::Sequence tail) = 0;

protected:
   Followers() = default;
   Followers(Followers const&) = default;
   Followers& operator=(Followers const&) = default;
   virtual ~Followers();

   bool asleep_ = false;
};

} // namespace Tessel

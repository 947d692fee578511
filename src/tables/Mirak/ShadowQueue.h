// SPDX-License-Identifier: Apache-2.0
// What a shadow's store asks of the one who hands it changes, while a change is taken in.
#pragma once

namespace Mirak {

class ShadowQueue {
public:
   /// Whether the queue's entry in progress still counts. False: a newer one for its slot, or for the row
   /// that was in it, is on its way.
   virtual bool validateNotif() const = 0;
   /// The entry, or the sweep's slot, is taken in, even if the client's callback that comes now throws.
   virtual void consume() = 0;

protected:
   ~ShadowQueue() = default;
};

} // namespace Mirak

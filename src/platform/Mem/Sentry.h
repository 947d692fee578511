// SPDX-License-Identifier: Apache-2.0
// What a mounted collection has beside its back end: a sentry that watches the table's place and tells the
// collection what to do. ReaderSentry.h and WriterSentry.h are the two kinds.
//
// A sentry reaches its collection through a Notifiee and may be let go from within a call to it. So it is
// ended in two steps: close(), from which on it calls nobody; and its deletion, which must wait for the loop
// (Lomi::deleteLater) while inCall().
#pragma once

#include "Lomi/Export.h"

#include <string>

namespace Mem {

class HOFLOW_EXPORT Sentry {
public:
   // What a collection has to say to its sentry.
   static constexpr char const* eventInit = "init";
   static constexpr char const* eventTryAttach = "tryAttach";
   static constexpr char const* eventNotifEnabled = "notifEnabled";
   static constexpr char const* eventDisconnect = "disconnect";
   static constexpr char const* eventFlushComplete = "flushComplete";
   static constexpr char const* eventCorruption = "corruption";
   // What a sentry finds by itself.
   static constexpr char const* eventFiles = "files";
   static constexpr char const* eventPoll = "poll";

   Sentry() = default;
   virtual ~Sentry() = default;
   Sentry(Sentry const&) = delete;
   Sentry& operator=(Sentry const&) = delete;

   /// Something happened to the collection. "init" and "tryAttach" are acted on at once, unless this sentry
   /// is just calling its collection: then, like all others, from the loop, since the caller may be a back
   /// end that the sentry is going to replace. The second argument means nothing.
   virtual void event(std::string const& name, bool) = 0;
   /// The collection was detached. Called at the detach's end.
   virtual void onDetach() {}
   /// Ends all calls to the collection.
   virtual void close() = 0;
   /// Whether a call to the collection is on the stack.
   bool inCall() const { return calls_ != 0; }

   /// A byte that is 0 while the collection wants to be left alone. An event follows when it is 1 again.
   unsigned char enabled = 1;

protected:
   struct Call {
      explicit Call(Sentry& sentry)
         : sentry_(sentry) {
         ++sentry_.calls_;
      }
      ~Call() { --sentry_.calls_; }
      Call(Call const&) = delete;
      Call& operator=(Call const&) = delete;

   private:
      Sentry& sentry_;
   };

private:
   unsigned calls_ = 0;
};

} // namespace Mem

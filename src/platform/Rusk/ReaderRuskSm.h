// SPDX-License-Identifier: Apache-2.0
// A reader's end of the wake-up: it decides when the queue is walked. It connects to the writer that the
// owner file names, says how far the reader is when it has met the end of the queue, and walks again when the
// writer says so. Protocol.h has the messages and the argument why no wake-up is lost. The queue and the
// shadow are behind `Follower` and not known here.
//
// While nobody has promised to wake it, it polls: every 10 ms at first, every 100 ms when nothing moves. That
// is so before it is connected, where the writer has no socket or is dead, where the reader may read the
// table but isn't let in, and while the writer doesn't get back to its loop. So a connection makes a follower
// quick and quiet; changes arrive without one, too.
//
// A connection that is lost is looked for again, with pauses that double from 20 ms to a second; each attempt
// reads the owner file anew. A writer that let go cleanly, or died, is found again in that way.
//
// All on one thread, as normal-priority tasks of its Lomi::TaskSchedulerRoot: the walk calls the client,
// which must not happen in the middle of some other table's grow. What a walk throws goes out of the loop to
// the agent, as with every normal task; the walk is tried again with the next poll. The follower may call
// anything here from inside walk(), handleConnect() and handleDisconnect(), and may end the object there.
//
// A forked child has no connection and must not use the object.
#pragma once

#include "Lomi/TaskSchedulerRoot.h"
#include "Lomi/Trace.h"
#include "Parcel/KestorId.h"
#include "Rusk/Protocol.h"
#include "Rusk/Socket.h"

#include <memory>
#include <string>

namespace Rusk {

enum class Walked {
   more,    ///< there is more
   atEnd,   ///< everything up to last() is taken in
   later,   ///< it can't be read now: ask again in a moment
   stopped, ///< there is nothing to follow: don't ask again before processingIs(true)
};

/// What is to be kept up to date.
class Follower {
public:
   /// Takes in a bounded number of changes.
   virtual Walked walk() = 0;
   /// Whether the queue has moved on since walk() said atEnd. A few loads.
   virtual bool behind() const = 0;
   /// The last sequence taken in, 0 if none. While a sweep runs: its start.
   virtual Sequence last() const = 0;
   /// How often all slots had to be looked at again since changes may have been missed.
   virtual u64 resyncs() const { return 0; }
   /// The generation that is followed.
   virtual Parcel::KestorId kestorId() const = 0;
   /// The writer has welcomed this reader.
   virtual void handleConnect() {}
   /// A connection that had come about is lost.
   virtual void handleDisconnect() = 0;

protected:
   ~Follower() = default;
};

class HOFLOW_EXPORT ReaderRuskSm {
public:
   struct Counters {
      u64 sequencesSent = 0; ///< sequences told to the writer: HELLO, SLEEP, REPORT
      u64 connects = 0;      ///< connections that the writer welcomed
      u64 disconnects = 0;   ///< of those, lost again
      u64 attempts = 0;      ///< to connect
      u64 wakes = 0;         ///< WAKEs received
      u64 polls = 0;         ///< looks at the queue by the timer
   };

   /// No file work. `name` tells clientQuiesced() who this is; may be empty. Throws
   /// Lomi::InvalidInitializeException if it has more than 63 characters, blanks, or anything but ASCII.
   ReaderRuskSm(Lomi::Platform::DebugHandler const& handler, Mem::NaoRootPath const& rootPath,
                Follower& follower, std::string name);
   ~ReaderRuskSm();
   ReaderRuskSm(ReaderRuskSm const&) = delete;
   ReaderRuskSm& operator=(ReaderRuskSm const&) = delete;

   /// Begins to look for the writer. Where it does already: looks at once.
   void maybeConnect();
   /// Closes the connection and forgets every task. handleDisconnect() isn't called.
   void detach();

   /// Whether the queue may be walked: false while a sweep runs. True begins with a walk.
   void processingIs(bool processing);
   bool processing() const { return processing_; }
   /// Whether the client wants to hear of changes. No walk without; the connection stays.
   void notifyingIs(bool notifying);
   bool notifying() const { return notifying_; }
   /// Seconds of walking in one turn of the loop. At least one batch is walked. 0.05 until set.
   void yieldTimeIs(double const& seconds) { yieldTime_ = seconds; }
   /// Tells the writer how far the follower is, now: at the start of a sweep.
   void report();

   /// The writer has said that it knows this reader, and the connection stands.
   bool connected() const { return welcomed_; }
   /// The writer has promised to wake this reader, which does nothing until then.
   bool asleep() const { return armed_; }
   u64 sequencesSent() const { return counters_.sequencesSent; }
   Counters const& counters() const { return counters_; }

private:
   bool following() const { return active_ && processing_ && notifying_; }
   void walkSoon();
   void walk();
   Walked walkForAWhile(std::shared_ptr<u64> const& epoch);
   void settle();
   void pollAfter(double seconds);
   void onPoll();

   void connectSoon();
   void connect();
   bool tryConnect();
   void onReadable();
   bool handle(Message const& message, bool& woken);
   void closeSocket();
   void lost();
   bool tell(MessageType type);
   void reportNow();

   Lomi::Platform::DebugHandler const& handler_;
   Mem::NaoRootPath const rootPath_;
   Follower& follower_;
   std::string const name_;
   double yieldTime_ = 0.05;

   bool active_ = false;
   bool processing_ = false;
   bool notifying_ = true;
   Socket socket_;
   bool welcomed_ = false;    // WELCOME was received
   bool outstanding_ = false; // a SLEEP was sent, and no WAKE received since
   bool armed_ = false;       // and ARMED was
   bool retry_ = false;       // the last walk threw: the next poll walks whatever the queue says
   double pause_ = 0;         // before the next attempt to connect
   double pollPause_ = 0;
   double reportedAt_ = 0;

   Lomi::Task readable_;
   Lomi::Task connectTask_;
   Lomi::Task walkTask_;
   Lomi::Task pollTask_;
   /// Moves when the object is detached or ends; outlives it in a call of the follower.
   std::shared_ptr<u64> epoch_;
   Counters counters_;
};

} // namespace Rusk

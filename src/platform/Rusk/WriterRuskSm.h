// SPDX-License-Identifier: Apache-2.0
// The writer's end of the wake-up, one for each table with a queue: who follows the table, who of them
// sleeps, what they have taken in. Protocol.h has the messages and the argument why no wake-up is lost. The
// queue asks it through Tessel::Followers and is not known here.
//
// On the table's thread only. It costs the writer nothing while nobody sleeps, one non-blocking send for each
// sleeper at the first change after it fell asleep, and for the rest what the event loop does with it.
// Messages are taken in as critical-priority tasks: also in the middle of a long grow, where nothing of the
// table is looked at but `tail` and `kestor`. Nothing here throws after doEnableListen(), blocks, or calls
// the table's user.
//
// A forked child has none of the connections and must not use the object.
#pragma once

#include "Lomi/TaskSchedulerRoot.h"
#include "Parcel/KestorId.h"
#include "Parcel/OwnerFile.h"
#include "Rusk/Allowance.h"
#include "Rusk/Credentials.h"
#include "Rusk/Drops.h"
#include "Rusk/Protocol.h"
#include "Rusk/Socket.h"
#include "Tessel/Followers.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace Rusk {

class TunnetAcceptSm;

class HOFLOW_EXPORT WriterRuskSm final : public Tessel::Followers {
public:
   using Tail = std::function<Sequence()>;               ///< last sequence given; private to the writer
   using Generation = std::function<Parcel::KestorId()>; ///< of the table's content
   using Publish = std::function<void(u32 readers, u32 resyncs)>;

   struct Counters {
      u64 wakesSent = 0;
      u64 armed = 0;              ///< SLEEPs that were answered by ARMED
      u64 sequencesProcessed = 0; ///< sequences taken in: HELLO, SLEEP, REPORT
      u64 joined = 0;
      u64 left = 0; ///< connections that their reader closed, or that ended with it
      Drops drops;
   };

   /// No file work. Who may read `file` in the table's directory may follow the table.
   WriterRuskSm(Lomi::Platform::DebugHandler const& handler, Mem::NaoRootPath const& rootPath,
                std::string file, Tail tail, Generation generation);
   ~WriterRuskSm() override;
   WriterRuskSm(WriterRuskSm const&) = delete;
   WriterRuskSm& operator=(WriterRuskSm const&) = delete;

   /// `publish` is called whenever a reader comes or goes, or says that it had to look at all slots again:
   /// with the readers that are connected, and how often they had to, together. It must not throw.
   void publishIs(Publish publish) { publish_ = std::move(publish); }

   /// Not used by any other table of this process, ever.
   u32 tableId() const { return tableId_; }
   /// What the owner file is to say. Makes the process's socket if there is none. With an empty name if there
   /// can't be one, and for a local table.
   Parcel::TunnetInfo tunnetInfo();
   /// Readers are let in from now on. Where there can't be a socket, they poll.
   void doEnableListen();
   /// Closes all connections and lets nobody in: before the content is formatted anew, and when the table is
   /// detached. The socket goes with the last table that uses it.
   void disableListen();

   void wake() noexcept override;
   bool anyConnected() const override { return !peers_.empty(); }
   Sequence reportedByAll() const override;
   /// Takes in what readers have sent, without waiting. The number of readers of that name if each of them
   /// has taken in everything up to `tail`, else 0.
   u64 clientQuiesced(std::string const& name, Sequence tail) override;

   u32 readers() const { return static_cast<u32>(peers_.size()); }
   u32 sleepingReaders() const { return sleeping_; }
   u32 readersOf(uid_t uid) const;
   Counters const& counters() const { return counters_; }
   /// Connections closed for what they did: this table's, and those of the process that never got to a table.
   u64 droppedPeers() const;

private:
   friend class TunnetAcceptSm;
   struct Peer;
   enum class Handled { going, gone };

   void join(Socket socket, Credentials const& credentials, Message const& hello);
   Handled onReadable(Peer& peer, int most);
   Handled handle(Peer& peer, Message const& message);
   Handled handleSleep(Peer& peer, Message const& message);
   Handled answer(Peer& peer, MessageType type);
   void reportIs(Peer& peer, Message const& message, Sequence tail);
   void publish() const;
   // The peer is gone after each of these.
   Handled drop(Peer& peer, Drop why); // for what it did
   Handled leave(Peer& peer);          // of its own accord, or dead
   Handled remove(Peer& peer);

   Lomi::Platform::DebugHandler const& handler_;
   Mem::NaoRootPath const rootPath_;
   std::string const file_;
   Tail const tail_;
   Generation const generation_;
   Publish publish_;
   u32 const tableId_;
   std::shared_ptr<TunnetAcceptSm> acceptor_;
   bool listening_ = false;
   std::uint32_t forks_ = 0; ///< when listening began
   std::vector<std::unique_ptr<Peer>> peers_;
   u32 sleeping_ = 0;
   Counters counters_;
};

} // namespace Rusk

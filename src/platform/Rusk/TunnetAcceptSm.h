// SPDX-License-Identifier: Apache-2.0
// Where a writer process can be reached: one listening socket in the root of its tables, shared by all tables
// under that root that are written from the same thread. It takes connections in, hears the first message of
// each, and hands the connection to the table that it names. What is said after that is WriterRuskSm's.
//
// Strangers may do what they like. A turn of the loop takes in a bounded number of connections, a second as
// well; so many may be open, so many of one foreign user, so many that haven't said anything yet (the oldest
// goes when another comes). A shortage of descriptors switches the socket off for a quarter of a second.
// Whatever is refused is closed and counted.
//
// Everything runs as critical-priority tasks of the thread's Lomi::TaskSchedulerRoot, so that a reader is
// answered in the middle of a long grow. Nothing throws out of a task, nothing blocks.
//
// The socket's name lies in the root until the last table lets go. A process that was killed leaves its name
// behind; the next writer in that root removes names that nobody answers to. A forked child has none of its
// parent's sockets and leaves the names alone.
#pragma once

#include "Lomi/TaskSchedulerRoot.h"
#include "Lomi/Trace.h"
#include "Rusk/Allowance.h"
#include "Rusk/Credentials.h"
#include "Rusk/Drops.h"
#include "Rusk/Protocol.h"
#include "Rusk/Socket.h"

#include <list>
#include <map>
#include <memory>
#include <string>
#include <sys/types.h>

namespace Rusk {

class WriterRuskSm;

class HOFLOW_EXPORT TunnetAcceptSm {
public:
   struct Counters {
      u64 accepted = 0;
      u64 paused = 0; ///< times that the socket was switched off for a while
      Drops drops;
   };

   /// The calling thread's for the root of `rootPath`. It lives as long as somebody holds it.
   static std::shared_ptr<TunnetAcceptSm> tunnetAcceptSm(Mem::NaoRootPath const& rootPath);
   explicit TunnetAcceptSm(Mem::NaoRootPath const& rootPath);
   ~TunnetAcceptSm();
   TunnetAcceptSm(TunnetAcceptSm const&) = delete;
   TunnetAcceptSm& operator=(TunnetAcceptSm const&) = delete;

   /// The socket's name in the root. Makes the socket at the first call; from then on connections queue up,
   /// and are taken in once a table listens. Empty, with a trace, if there can't be one: then readers poll.
   std::string const& socketName();
   /// From now on connections for that table are handed to it.
   void tableIs(u32 tableId, WriterRuskSm& table);
   void tableDel(u32 tableId);

   Counters const& counters() const { return counters_; }
   /// Connections that are open, with or without a table.
   u32 connections() const;

private:
   struct Visitor {
      Socket socket;
      Credentials credentials;
      Lomi::Task task;
   };
   using Visitors = std::list<Visitor>;

   bool open();
   bool bindName();
   void openToAll();
   void removeStale();
   bool stale(std::string const& name) const;
   void listen();
   void pause(double seconds);
   void resume();
   void onAcceptable();
   void receiveVisitor(Socket socket);
   bool admitted(Credentials const& credentials);
   void onVisitor(Visitors::iterator visitor);
   void greet(Socket socket, Credentials const& credentials, Message const& hello);

   std::shared_ptr<Lomi::Platform::DebugHandler> handler_;
   Mem::NaoRootPath const rootPath_;
   std::uint32_t const forks_;
   Mem::Descriptor root_;
   Socket listener_;
   std::string name_;
   dev_t device_ = 0; // of the socket's name
   ino_t inode_ = 0;
   Lomi::Task accept_;
   Lomi::Task resume_;
   Allowance allowance_;
   Visitors visitors_;
   std::map<u32, WriterRuskSm*> tables_;
   Counters counters_;
};

} // namespace Rusk

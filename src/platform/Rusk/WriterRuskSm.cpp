// SPDX-License-Identifier: Apache-2.0
#include "Rusk/WriterRuskSm.h"

#include "Lomi/Fork.h"
#include "Rusk/TunnetAcceptSm.h"

#include <algorithm>
#include <atomic>
#include <sys/epoll.h>
#include <utility>

namespace Rusk {
namespace {

constexpr int messagesInATurn = 8;
constexpr int messagesInADrain = 32;
// Messages that a follower sends of its own accord. A SLEEP that takes in what the last WAKE was sent for is
// not one of them: of those there are no more than changes.
constexpr double messagesInASecond = 100;
constexpr double messagesAtOnce = 64;

u32 newTableId() {
   static std::atomic<u32> last{0};
   return ++last;
}

} // namespace

struct WriterRuskSm::Peer {
   Socket socket;
   uid_t uid;
   std::string name;
   Lomi::Task task{};
   Sequence reported = 0;
   u32 resyncs = 0;
   Sequence wokenAt = 0; // the tail when it was last sent WAKE
   bool marked = false;  // sleeps, and is to be woken
   Allowance allowance{messagesInASecond, messagesAtOnce};
};

WriterRuskSm::WriterRuskSm(Lomi::Platform::DebugHandler const& handler, Mem::NaoRootPath const& rootPath,
                           std::string file, Tail tail, Generation generation)
   : handler_(handler)
   , rootPath_(rootPath)
   , file_(std::move(file))
   , tail_(std::move(tail))
   , generation_(std::move(generation))
   , tableId_(newTableId()) {}

WriterRuskSm::~WriterRuskSm() { disableListen(); }

Parcel::TunnetInfo WriterRuskSm::tunnetInfo() {
   if (!rootPath_.shared()) return {};
   if (!acceptor_) acceptor_ = TunnetAcceptSm::tunnetAcceptSm(rootPath_);
   std::string const& name = acceptor_->socketName();
   return name.empty() ? Parcel::TunnetInfo{} : Parcel::TunnetInfo{name, tableId_};
}

void WriterRuskSm::doEnableListen() {
   if (listening_ || tunnetInfo().socketName.empty()) return;
   acceptor_->tableIs(tableId_, *this);
   forks_ = Lomi::forkGeneration();
   listening_ = true;
}

void WriterRuskSm::disableListen() {
   if (listening_) acceptor_->tableDel(tableId_);
   listening_ = false;
   peers_.clear();
   publish();
   sleeping_ = 0;
   asleep_ = false;
   acceptor_.reset();
}

void WriterRuskSm::join(Socket socket, Credentials const& credentials, Message const& hello) {
   if (hello.kestor != generation_().value()) {
      ++counters_.drops[Drop::wrongGeneration];
      return;
   }
   if (!mayOpen(credentials, rootPath_, file_, Right::read)) {
      ++counters_.drops[Drop::notPermitted];
      return;
   }
   peers_.push_back(std::make_unique<Peer>(Peer{std::move(socket), credentials.uid, hello.name}));
   Peer& peer = *peers_.back();
   try {
      peer.task = Lomi::TaskSchedulerRoot::root().descriptorTask(
          peer.socket.get(), EPOLLIN, [this, &peer](std::uint32_t) { onReadable(peer, messagesInATurn); },
          Lomi::TaskPriority::critical);
   } catch (...) {
      peers_.pop_back();
      throw;
   }
   ++counters_.joined;
   reportIs(peer, hello, tail_());
   publish();
   LOMI_TRACE(handler_, 2, "WriterRuskSm", "{} reader \"{}\" joined", rootPath_.str(), hello.name);
   if (answer(peer, MessageType::welcome) == Handled::going) onReadable(peer, messagesInATurn);
}

// Bounded: a peer that sends without end has its turn like everybody else.
WriterRuskSm::Handled WriterRuskSm::onReadable(Peer& peer, int most) {
   Message message;
   for (; most > 0; --most) {
      switch (receive(peer.socket.get(), message)) {
      case Received::nothing:
         return Handled::going;
      case Received::closed:
         return leave(peer);
      case Received::bad:
         return drop(peer, Drop::badMessage);
      case Received::descriptors:
         return drop(peer, Drop::descriptors);
      case Received::message:
         if (handle(peer, message) == Handled::gone) return Handled::gone;
      }
   }
   return Handled::going;
}

WriterRuskSm::Handled WriterRuskSm::handle(Peer& peer, Message const& message) {
   if (message.type == MessageType::sleep) return handleSleep(peer, message);
   if (message.type != MessageType::report) return drop(peer, Drop::badMessage);
   if (!peer.allowance.take()) return drop(peer, Drop::tooOften);
   reportIs(peer, message, tail_());
   return Handled::going;
}

// E in Protocol.h: one event, since no change can come between the comparison and the mark.
WriterRuskSm::Handled WriterRuskSm::handleSleep(Peer& peer, Message const& message) {
   Sequence const sequence = message.sequence;
   if (peer.marked) return drop(peer, Drop::secondSleep);
   if (sequence < peer.wokenAt && !peer.allowance.take()) return drop(peer, Drop::tooOften);
   Sequence const tail = tail_();
   reportIs(peer, message, tail);
   // A reader that is ahead follows another past of this table. It has to look, too.
   if (sequence != tail) {
      if (sequence > tail && !peer.allowance.take()) return drop(peer, Drop::tooOften);
      peer.wokenAt = tail;
      ++counters_.wakesSent;
      return answer(peer, MessageType::wake);
   }
   peer.marked = true;
   ++sleeping_;
   asleep_ = true;
   ++counters_.armed;
   return answer(peer, MessageType::armed);
}

void WriterRuskSm::reportIs(Peer& peer, Message const& message, Sequence tail) {
   ++counters_.sequencesProcessed;
   peer.reported = message.sequence <= tail ? message.sequence : 0;
   if (std::exchange(peer.resyncs, message.resyncs) != message.resyncs) publish();
}

void WriterRuskSm::publish() const {
   // Where it is published may not be mapped in a forked child that ends the object.
   if (!publish_ || forks_ != Lomi::forkGeneration()) return;
   u32 resyncs = 0;
   for (auto const& peer : peers_) resyncs += peer->resyncs;
   publish_(readers(), resyncs);
}

WriterRuskSm::Handled WriterRuskSm::answer(Peer& peer, MessageType type) {
   Message message;
   message.type = type;
   switch (send(peer.socket.get(), message)) {
   case Sent::done:
      return Handled::going;
   case Sent::full:
      return drop(peer, Drop::notReading);
   case Sent::gone:
      break;
   }
   return leave(peer);
}

// W in Protocol.h. From the back, because a peer that goes is replaced by the last one.
void WriterRuskSm::wake() noexcept {
   asleep_ = false;
   Sequence const tail = tail_();
   for (std::size_t i = peers_.size(); i-- > 0 && sleeping_ > 0;) {
      Peer& peer = *peers_[i];
      if (!peer.marked) continue;
      peer.marked = false;
      --sleeping_;
      peer.wokenAt = tail;
      ++counters_.wakesSent;
      answer(peer, MessageType::wake);
   }
}

Sequence WriterRuskSm::reportedByAll() const {
   if (peers_.empty()) return 0;
   Sequence least = noSequence;
   for (auto const& peer : peers_) least = std::min(least, peer->reported);
   return least;
}

u64 WriterRuskSm::clientQuiesced(std::string const& name, Sequence tail) {
   if (name.empty()) return 0;
   u64 count = 0;
   bool all = true;
   for (std::size_t i = peers_.size(); i-- > 0;) {
      Peer& peer = *peers_[i];
      if (peer.name != name || onReadable(peer, messagesInADrain) == Handled::gone) continue;
      ++count;
      if (peer.reported < tail) all = false;
   }
   return all ? count : 0;
}

u32 WriterRuskSm::readersOf(uid_t uid) const {
   return static_cast<u32>(
       std::count_if(peers_.begin(), peers_.end(), [&](auto const& peer) { return peer->uid == uid; }));
}

u64 WriterRuskSm::droppedPeers() const {
   return counters_.drops.total() + (acceptor_ ? acceptor_->counters().drops.total() : 0);
}

WriterRuskSm::Handled WriterRuskSm::drop(Peer& peer, Drop why) {
   ++counters_.drops[why];
   return remove(peer);
}

WriterRuskSm::Handled WriterRuskSm::leave(Peer& peer) {
   ++counters_.left;
   return remove(peer);
}

WriterRuskSm::Handled WriterRuskSm::remove(Peer& peer) {
   LOMI_TRACE(handler_, 2, "WriterRuskSm", "{} reader \"{}\" left", rootPath_.str(), peer.name);
   if (peer.marked && --sleeping_ == 0) asleep_ = false;
   auto const found =
       std::find_if(peers_.begin(), peers_.end(), [&](auto const& one) { return one.get() == &peer; });
   std::swap(*found, peers_.back());
   peers_.pop_back();
   publish();
   return Handled::gone;
}

} // namespace Rusk

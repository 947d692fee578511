// SPDX-License-Identifier: Apache-2.0
// States of a follower that may walk: walking (a walk task waits), polling (the poll timer runs), asleep
// (neither, and ARMED was received). settle() is the only way from walking to the other two, and every event
// that could mean news leads back to walking.
#include "Rusk/ReaderRuskSm.h"

#include "Lomi/Exception.h"
#include "Parcel/OwnerFile.h"
#include "Rusk/Allowance.h"
#include "Rusk/Credentials.h"
#include "Rusk/TunnetName.h"

#include <linux/sockios.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/epoll.h>
#include <sys/ioctl.h>

namespace Rusk {
namespace {

constexpr double firstPoll = 0.01;
constexpr double longestPoll = 0.1;
constexpr double firstPause = 0.02;
constexpr double longestPause = 1;
constexpr double reportEvery = 0.02; // while a walk doesn't come to the end
constexpr int messagesInATurn = 8;

} // namespace

ReaderRuskSm::ReaderRuskSm(Lomi::Platform::DebugHandler const& handler, Mem::NaoRootPath const& rootPath,
                           Follower& follower, std::string name)
   : handler_(handler)
   , rootPath_(rootPath)
   , follower_(follower)
   , name_(std::move(name))
   , epoch_(std::make_shared<u64>(0)) {
   if (!nameAllowed(name_))
      throw Lomi::InvalidInitializeException(
          fmt::format("bad reader name \"{}\": up to {} printable ASCII characters, no blanks, are allowed",
                      name_, longestName));
}

ReaderRuskSm::~ReaderRuskSm() { detach(); }

void ReaderRuskSm::detach() {
   ++*epoch_;
   active_ = processing_ = retry_ = false;
   closeSocket();
   connectTask_.cancel();
   walkTask_.cancel();
   pollTask_.cancel();
}

void ReaderRuskSm::maybeConnect() {
   active_ = true;
   if (socket_) return;
   pause_ = 0;
   connectSoon();
   walkSoon();
}

void ReaderRuskSm::processingIs(bool processing) {
   processing_ = processing;
   walkSoon();
}

void ReaderRuskSm::notifyingIs(bool notifying) {
   notifying_ = notifying;
   walkSoon();
}

// --- walking ---

void ReaderRuskSm::walkSoon() {
   pollTask_.cancel();
   if (following() && !walkTask_.active())
      walkTask_ = Lomi::TaskSchedulerRoot::root().deferredTask([this] { walk(); });
}

void ReaderRuskSm::walk() {
   if (!following()) return;
   pollTask_.cancel();
   auto const epoch = epoch_;
   u64 const before = *epoch;
   Walked walked;
   try {
      walked = walkForAWhile(epoch);
   } catch (...) {
      // From here on *this may be gone.
      if (*epoch == before && following()) {
         retry_ = true;
         pollAfter(longestPoll);
      }
      throw;
   }
   if (*epoch != before || !following()) return;
   retry_ = false;
   if (walked == Walked::more) {
      if (Lomi::monotonicTime() - reportedAt_ > reportEvery) reportNow();
      walkSoon();
   } else if (walked == Walked::atEnd) {
      settle();
   } else if (walked == Walked::later) {
      retry_ = true;
      pollAfter(longestPoll);
   }
}

Walked ReaderRuskSm::walkForAWhile(std::shared_ptr<u64> const& epoch) {
   u64 const before = *epoch;
   double const until = Lomi::monotonicTime() + std::max(yieldTime_, 0.0);
   while (true) {
      Walked const walked = follower_.walk();
      if (*epoch != before) return Walked::stopped;
      if (walked != Walked::more || !following() || !(Lomi::monotonicTime() < until)) return walked;
   }
}

// R1 and R2 in Protocol.h. A SLEEP that is under way is answered in any case; there is never a second one.
void ReaderRuskSm::settle() {
   if (follower_.behind()) return walkSoon();
   if (socket_ && !outstanding_) outstanding_ = tell(MessageType::sleep);
   if (!armed_) pollAfter(firstPoll);
}

void ReaderRuskSm::pollAfter(double seconds) {
   pollPause_ = seconds;
   pollTask_ = Lomi::TaskSchedulerRoot::root().timerTask(seconds, [this] { onPoll(); });
}

void ReaderRuskSm::onPoll() {
   if (!following()) return;
   ++counters_.polls;
   if (retry_ || follower_.behind()) return walk();
   // The SLEEP may not have fitted, or there was no connection then.
   if (socket_ && !outstanding_) outstanding_ = tell(MessageType::sleep);
   if (!armed_) pollAfter(std::min(2 * pollPause_, longestPoll));
}

// --- talking ---

bool ReaderRuskSm::tell(MessageType type) {
   Message message;
   message.type = type;
   message.sequence = follower_.last();
   if (message.sequence == noSequence) message.sequence = 0;
   message.resyncs = static_cast<u32>(follower_.resyncs());
   if (send(socket_.get(), message) != Sent::done) return false; // a lost connection is met by reading
   ++counters_.sequencesSent;
   reportedAt_ = Lomi::monotonicTime();
   return true;
}

void ReaderRuskSm::report() {
   if (socket_) tell(MessageType::report);
}

// One unread report is enough: a writer that is long away from its loop finds no heap of them.
void ReaderRuskSm::reportNow() {
   int unread = 0;
   if (socket_ && ::ioctl(socket_.get(), SIOCOUTQ, &unread) == 0 && unread == 0) report();
}

void ReaderRuskSm::onReadable() {
   bool woken = false;
   bool const welcomedBefore = welcomed_;
   Message message;
   for (int i = 0; i < messagesInATurn; ++i) {
      Received const received = receive(socket_.get(), message);
      if (received == Received::nothing) break;
      if (received != Received::message || !handle(message, woken)) return lost();
   }
   if (welcomed_ && !welcomedBefore) {
      if (woken) walkSoon();
      return follower_.handleConnect(); // last: it may throw, and the object may end in it
   }
   if (woken) walk();
}

// False if the message has no place here: then it isn't a writer's.
bool ReaderRuskSm::handle(Message const& message, bool& woken) {
   switch (message.type) {
   case MessageType::welcome:
      if (welcomed_) return false;
      welcomed_ = true;
      pause_ = firstPause;
      ++counters_.connects;
      LOMI_TRACE(handler_, 1, "ReaderRuskSm", "{} connected", rootPath_.str());
      return true;
   case MessageType::armed:
      if (!outstanding_ || armed_) return false;
      armed_ = true;
      if (!retry_) pollTask_.cancel(); // R3
      return true;
   case MessageType::wake:
      if (!outstanding_) return false;
      outstanding_ = armed_ = false;
      ++counters_.wakes;
      woken = true;
      return true;
   case MessageType::hello:
   case MessageType::sleep:
   case MessageType::report:
      break;
   }
   return false;
}

void ReaderRuskSm::closeSocket() {
   readable_.cancel();
   socket_.reset();
   welcomed_ = outstanding_ = armed_ = false;
}

// R5.
void ReaderRuskSm::lost() {
   bool const had = welcomed_;
   closeSocket();
   LOMI_TRACE(handler_, 1, "ReaderRuskSm", "{} disconnected, welcomed before:{}", rootPath_.str(), had);
   connectSoon();
   walkSoon();
   if (!had) return;
   ++counters_.disconnects;
   follower_.handleDisconnect(); // last: the object may end in it
}

// --- connecting ---

void ReaderRuskSm::connectSoon() {
   connectTask_ = Lomi::TaskSchedulerRoot::root().timerTask(pause_, [this] { connect(); });
   pause_ = std::clamp(2 * pause_, firstPause, longestPause);
}

void ReaderRuskSm::connect() {
   if (!active_ || socket_) return;
   ++counters_.attempts;
   bool done = false;
   try {
      done = tryConnect();
   } catch (Lomi::Exception const& error) {
      LOMI_TRACE(handler_, 2, "ReaderRuskSm", "{} not connected: {}", rootPath_.str(), error.what());
   }
   if (done) return walkSoon(); // R5: walk once more, then SLEEP
   closeSocket();
   connectSoon();
}

// Throws Lomi::CorruptionDetectedException where the owner file can't be read.
bool ReaderRuskSm::tryConnect() {
   Parcel::TunnetInfo const info = Parcel::OwnerFile(handler_, rootPath_, false).tunnetInfo();
   if (!TunnetNameIs(info.socketName).valid) return false;
   socket_ = Socket::make();
   if (!socket_) return false;
   if (int const error = connectInRoot(socket_, rootPath_, info.socketName)) {
      LOMI_TRACE(handler_, 5, "ReaderRuskSm", "{} to {}: {}", rootPath_.str(), info.socketName,
                 std::strerror(error));
      return false;
   }
   // Who may not write this table could promise to wake, and never do so.
   Credentials writer;
   if (!Credentials::of(socket_, writer) ||
       !mayOpen(writer, rootPath_, Parcel::OwnerFile::FILENAME, Right::write)) {
      LOMI_TRACE(handler_, 1, "ReaderRuskSm", "{}: {} belongs to somebody who may not write the table",
                 rootPath_.str(), info.socketName);
      return false;
   }
   Message hello;
   hello.type = MessageType::hello;
   hello.tableId = info.tableId;
   hello.kestor = follower_.kestorId().value();
   hello.sequence = follower_.last() == noSequence ? 0 : follower_.last();
   hello.resyncs = static_cast<u32>(follower_.resyncs());
   hello.name = name_;
   if (send(socket_.get(), hello) != Sent::done) return false;
   ++counters_.sequencesSent;
   reportedAt_ = Lomi::monotonicTime();
   readable_ = Lomi::TaskSchedulerRoot::root().descriptorTask(socket_.get(), EPOLLIN,
                                                              [this](std::uint32_t) { onReadable(); });
   return true;
}

} // namespace Rusk

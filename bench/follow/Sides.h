// SPDX-License-Identifier: Apache-2.0
// The two sides of a followed table, and what they need as processes. A follower keeps a word of each slot's
// row: enough to prove at rest that it has the last state of all of them.
#pragma once

#include "core/Machine.h"
#include "peers/HoflowTable.h"

#include "Mirak/MirakMap.h"
#include "Rusk/ReaderRuskSm.h"
#include "Tessel/TesselReader.h"

#include <atomic>
#include <csignal>
#include <functional>
#include <new>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Bench {

using QueueOps = FlowTracking::HoIpFlowConfigOps;
using FollowedWriter = Mirak::MirakWriter<QueueOps>;

/// A writer on the table under `place`, open, with critical tasks inside long operations.
std::unique_ptr<FollowedWriter> openFollowed(Place const& place);

/// Memory that both sides have after a fork.
template <class T> class Common {
public:
   Common() {
      void* const at = ::mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
      if (at == MAP_FAILED) throw std::bad_alloc();
      at_ = new (at) T();
   }
   ~Common() { ::munmap(at_, sizeof(T)); }
   Common(Common const&) = delete;
   T* operator->() const { return at_; }
   T& operator*() const { return *at_; }

private:
   T* at_;
};

/// A child that ends with this object or with its parent.
class Process {
public:
   template <class Body> explicit Process(Body const& body) {
      pid_ = ::fork();
      if (pid_ < 0) throw std::runtime_error("can't fork");
      if (pid_ > 0) return;
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      try {
         body();
      } catch (std::exception const& error) {
         std::fprintf(stderr, "hoflow-bench: %s\n", error.what());
      }
      ::_exit(1); // whoever waits for it finds it dead
   }
   ~Process() {
      signal(SIGKILL);
      if (pid_ > 0) ::waitpid(pid_, nullptr, 0);
   }
   Process(Process const&) = delete;
   void signal(int number) const {
      if (pid_ > 0) ::kill(pid_, number);
   }
   /// @throws std::runtime_error if it has ended
   void mustLive(char const* who) {
      if (pid_ <= 0 || ::waitpid(pid_, nullptr, WNOHANG) != pid_) return;
      pid_ = -1;
      wrong(who, "the other process has ended");
   }

private:
   pid_t pid_;
};

/// Runs `step` until `done`; throws if that takes a minute or the other side dies.
template <class Done, class Step> void await(char const* who, Process* other, Done done, Step step) {
   auto const start = Clock::now();
   for (u64 looks = 0; !done(); ++looks) {
      step();
      if (looks % 1024 != 1023) continue;
      if (other) other->mustLive(who);
      if (nsSince(start, 1) > 60e9) wrong(who, "what was awaited for a minute didn't come");
   }
}

class Follower final : public Tessel::SlotClient<Tessel::BasicSlot>, public Rusk::Follower {
public:
   /// Attaches, and connects as the loop runs.
   explicit Follower(Place const& place);

   bool doSlot(Tessel::BasicSlot slot, Rusk::Sequence sequence, bool compare) override;
   Rusk::Walked walk() override;
   bool behind() const override { return !queue_.quiesced(); }
   Rusk::Sequence last() const override { return queue_.last(); }
   Parcel::KestorId kestorId() const override { return reader_.kestorId(); }
   void handleDisconnect() override {}

   bool quiesced() const { return queue_.quiesced(); }
   u64 calls() const { return calls_; }
   u64 sweeps() const { return sweeps_; }
   /// rowSum over all rows.
   u64 sum() const { return sum_; }
   std::function<void(Row const&)> onChange; ///< called for a change, not in a sweep

private:
   void sweep();
   Mem::NaoRootPath path_;
   Mirak::MirakReader<QueueOps> reader_;
   Tessel::TesselReader<Tessel::BasicSlot> queue_;
   Rusk::ReaderRuskSm rusk_;
   std::vector<u64> sums_; // of each slot's row, 0 without one
   u64 sum_ = 0;
   u64 calls_ = 0;
   u64 sweeps_ = 0;
};

/// The same by a whole collection, mounted as shadow or keyshadow: it keeps the rows, too.
class ShadowFollower final : public Mirak::MirakMap<QueueOps> {
public:
   /// Mounted; the copy fills as the loop runs.
   explicit ShadowFollower(Place const& place, bool keyOnly = false);

   bool complete() const { return mountStatus() == Mem::MountStatus::synchronised; }
   u64 calls() const { return calls_; }
   Rusk::Sequence last() const { return sequence(); }
   /// rowSum over all rows, by a walk. Remembered while nothing changes.
   u64 sum();
   std::function<void(Row const&)> onChange; ///< called for each new or changed row

private:
   void hear(Row const& row);
   u64 calls_ = 0;
   u64 summedAt_ = ~u64{0};
   u64 sum_ = 0;
};

} // namespace Bench

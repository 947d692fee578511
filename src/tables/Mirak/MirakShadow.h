// SPDX-License-Identifier: Apache-2.0
// Mirak::MirakShadow: the back end of a collection in shadow or keyshadow mode. A private copy of a table
// that another process writes: filled by a sweep over the table's slots, kept up to date by its change queue
// (MirakShadowBase.h), and read without touching the queue (ShadowStore.h has both kinds of copy).
//
//   mountStatus      when
//
//   notMounted       not initialised
//
//   mounted          the first sweep fills the copy; reads answer from what has arrived
//
//   synchronised     the first sweep is over. It stays so when the writer dies: connected() says that
//
//   flushing         let go; the copy empties itself
//
// What its client hears (Mem::Notify):
//   - in an asynchronous mount nothing of rows before the copy is complete for the first time; then each row
//     that is new or changed, and each removal. For each row these add up to what the copy holds.
//   - a keyshadow tells a row by its key, also when it was rewritten with what it held. It tells each row
//     once more in a resynchronisation: its client must not mind
//   - mountStatusFn when the copy is complete, when the connection to the writer comes or is lost, and at the
//     end of a flush; quiescedFn when the queue's end is met, and when the copy has fallen behind by more
//     than the yield time
//   - with shadowFlagNotifyOnFlush, a removal for each row when the table goes away or is formatted anew, all
//     of them before the first row of the new table. Without it, the mount status alone tells of that
//
// A detach that isn't forced empties the copy in steps from the loop, on local memory alone: the table may be
// gone by then. In a keyshadow no row is found any more while that goes on.
//
// One thread, the owner's. A callback may read the collection, let it go and mount it again. The object must
// not be destroyed in one: callsBack() says so to the front object, which deletes it from the loop.
#pragma once

#include "Lomi/DeleteLater.h"
#include "Mem/Notify.h"
#include "Mirak/MirakInterface.h"
#include "Mirak/MirakReader.h"
#include "Mirak/MirakShadowBase.h"
#include "Mirak/ShadowStore.h"

#include <memory>
#include <string>

namespace Mirak {

template <class Ops> class MirakMap;

template <class Ops> class HOFLOW_EXPORT MirakShadow : public MirakShadowBase, public MirakInterface<Ops> {
public:
   using typename MirakInterface<Ops>::Key;
   using typename MirakInterface<Ops>::Value;

   /// Touches no file. @param owner, notify the front object and its client's callbacks; both outlive every
   /// call of this object but its destructor
   MirakShadow(Lomi::Platform::DebugHandler const& handler, std::string const& name, u32 flags,
               Ops const& ops, MirakMap<Ops>& owner, Mem::Notify<Key, Value>& notify)
      : MirakShadowBase(handler, name, flags)
      , reader_(handler, name, ops, &counters_)
      , owner_(owner)
      , notify_(notify) {}

   /// Opens the table and lets the first sweep begin. On an open one: looks for the writer at once. During a
   /// flush: ends that first. @return false: there is no such table now, or it is damaged
   bool initialize(std::string const& event) override;
   void detach(bool forced) override;
   bool damageFound() const override { return reader_.damageFound(); }
   bool callsBack() const override { return true; }

   bool doSlot(Tessel::BasicSlot slot, Rusk::Sequence seq, bool compare) override;
   void doFlushSlot(u32 slot) override { store_->doFlushSlot(slot); }

   Value const* lookup(Key const& key, bool& found, void* out) const override;
   Value const* directLookup(Key const& key, bool& found, void* out) const override;
   bool first(Value& value, IterHint& hint) const override;
   bool next(Key const& key, Value& value, IterHint& hint) const override;
   void validateVersionAnchor() const override;
   Mem::CacheVersionAnchor getCacheVersionAnchor() const override;

   u32 members() const override { return counters_.members; }
   u32 buckets() const override { return reader_.buckets(); }
   u32 minSize() const override { return 0; }
   u32 maxSize() const override { return reader_.maxSize(); }
   u32 capacity() const override { return reader_.capacity(); }
   MirakType type() const override { return MirakType::shadow; }
   bool quiesced() const override { return tesselReader_.quiesced(); }
   bool connected() const override { return rusk_.connected(); }
   Reader::Counters readerCounters() const override;
   void notifyingIs(bool notifying) override;
   void yieldTimeIs(double const& seconds) override;
   u64 sequence() const override { return counters_.sequence; }
   Mem::NaoRootPath rootPath() const override { return rootPath_; }
   std::string mirakName() const override { return rootPath_.dirName(); }
   Mem::MountStatus mountStatus() const override;
   Parcel::KestorId kestorId() const override { return reader_.kestorId(); }
   std::string dumpHeaders() const;

private:
   bool open(std::string const& event);
   void makeStore();
   void syncComplete() override;
   void flushComplete() override;
   void handleQuiesced(bool quiesced) override { notify_.quiescedFn(quiesced); }
   void handleReturn() override { notify_.mountStatusFn(); }
   void handleDisconnect() override;
   void corruptionDetected(std::string const& message) override;
   bool resize() override { return reader_.resize(); }
   u32 localCapacity() const override { return store_->numSlots(); }

   Reader::Counters counters_;
   MirakReader<Ops> reader_;
   MirakMap<Ops>& owner_;
   Mem::Notify<Key, Value>& notify_;
   std::shared_ptr<ShadowStoreBase<Key, Value>> store_; ///< null until the first initialize()
   bool flushing_ = false;
};

// --- opening and closing ---

template <class Ops> bool MirakShadow<Ops>::initialize(std::string const& event) {
   if (flushing_) {
      if (this->initialized()) return false; // a callback out of a forced flush
      // Removals of the old copy come before anything of the new one. flushComplete() must not put a
      // placeholder here: that is what "initialised" says to it.
      this->initializedIs(true);
      syncer_.forceSyncCompletion();
      this->initializedIs(false);
      if (flushing_) return false; // a callback out of one that is being forced: it goes on behind this call
      if (&owner_.back() != this) return false; // let go in one; nobody would ever detach it again
   }
   if (this->initialized()) {
      maybeConnect();
      return true;
   }
   try {
      bool const opened = open(event);
      this->initializedIs(opened);
      return opened;
   } catch (Lomi::CorruptionDetectedException const& e) {
      LOMI_TRACE(debugHandler(), 0, "MirakShadow", "corruption detected: {}", e.msg());
      corruptionDetected(e.msg());
   }
   return false;
}

template <class Ops> bool MirakShadow<Ops>::open(std::string const& event) {
   if (!reader_.initialize(event)) {
      LOMI_TRACE(debugHandler(), 0, "MirakShadow", "{}", "mirak.initialize() Failed");
      return false;
   }
   if (store_) Lomi::deleteLater(std::move(store_)); // it may be on the stack
   makeStore();
   return store_->initialize() && initializeTessel();
}

template <class Ops> void MirakShadow<Ops>::makeStore() {
   bool const tellFlush = flag(shadowFlagNotifyOnFlush);
   if (flag(shadowFlagKeyOnly))
      store_ = std::make_shared<KeyShadowStore<Ops>>(debugHandler(), reader_, counters_, *this, notify_,
                                                     tellFlush);
   else
      store_ = std::make_shared<ShadowStore<ValueShadowSlot<Ops>>>(debugHandler(), reader_, counters_, *this,
                                                                   notify_, tellFlush);
}

/// The table and the queue are let go before the flush begins, which works on local memory alone. A forced
/// flush still finds "initialised", so that its caller decides what comes next.
template <class Ops> void MirakShadow<Ops>::detach(bool forced) {
   if (!this->initialized()) {
      LOMI_TRACE(debugHandler(), 5, "MirakShadow", "{}", "already detached");
      if (!flushing_) return;
      LOMI_ASSERT(syncer_.mode() == SyncerMode::flush, debugHandler(), "{}",
                  "expected Syncer in flush mode during asynchronous flush");
      LOMI_ASSERT(forced, debugHandler(), "{}", "expected only forced detach during asynchronous flush");
      return syncer_.forceSyncCompletion();
   }
   if (flushing_) return; // a callback out of a forced flush
   struct End {
      MirakShadow& shadow;
      ~End() { shadow.initializedIs(false); }
   } const end{*this};
   detachTessel();
   reader_.detach(false);
   flushing_ = true;
   syncer_.sync(store_->numSlots(), SyncerMode::flush, !forced);
   LOMI_TRACE(debugHandler(), 2, "MirakShadow", "{}", "detached");
}

template <class Ops> void MirakShadow<Ops>::flushComplete() {
   LOMI_TRACE(debugHandler(), 1, "MirakShadow", "{}", "Flush complete");
   store_->disable();
   flushing_ = false;
   if (!this->initialized()) owner_.flushComplete(*this); // last: another mount may stand there by now
}

// --- following ---

template <class Ops> bool MirakShadow<Ops>::doSlot(Tessel::BasicSlot slot, Rusk::Sequence seq, bool compare) {
   bool const taken = store_->doSlot(slot, seq, compare);
   if (!taken) ++counters_.failedNotifications;
   return taken;
}

/// Each callback may end the mount, or throw: what must be done is done before the first. The walk itself
/// begins in the loop.
template <class Ops> void MirakShadow<Ops>::syncComplete() {
   counters_.syncSequence = sequence_;
   counters_.sequence = sequence_;
   LOMI_TRACE(debugHandler(), 1, "MirakShadow", "Synchronization complete, seq:{}", sequence_);
   maybeEnableTessel();
   if (!std::exchange(synced_, true)) {
      owner_.callbacksLive();
      notify_.mountStatusFn();
   }
   if (this->initialized()) handleQuiesced(quiesced());
}

template <class Ops> void MirakShadow<Ops>::handleDisconnect() {
   if (!rusk_.processing())
      LOMI_TRACE(debugHandler(), 1, "MirakShadow",
                 "disconnected while rusk processing is disabled, syncer mode:{} done:{}",
                 static_cast<int>(syncer_.mode()), syncer_.done());
   if (flushing_) return;
   owner_.handleDisconnect();
   notify_.mountStatusFn();
}

template <class Ops> void MirakShadow<Ops>::corruptionDetected(std::string const& message) {
   if (!flushing_) owner_.doCorruptionDetected(message);
}

template <class Ops> void MirakShadow<Ops>::notifyingIs(bool notifying) {
   LOMI_TRACE(debugHandler(), 5, "MirakShadow", "notifying:{}", notifying);
   if (!notifying) tesselReader_.pause();
   syncer_.notifyingIs(notifying);
   rusk_.notifyingIs(notifying);
}

template <class Ops> void MirakShadow<Ops>::yieldTimeIs(double const& seconds) {
   yieldTime_ = seconds;
   rusk_.yieldTimeIs(seconds);
   syncer_.yieldTimeIs(seconds);
}

// --- reading ---

template <class Ops>
auto MirakShadow<Ops>::lookup(Key const& key, bool& found, void* out) const -> Value const* {
   return store_->lookup(key, found, out);
}

template <class Ops>
auto MirakShadow<Ops>::directLookup(Key const& key, bool& found, void* out) const -> Value const* {
   return store_->directLookup(key, found, out);
}

template <class Ops> bool MirakShadow<Ops>::first(Value& value, IterHint& hint) const {
   return store_->first(0, value, hint);
}

template <class Ops> bool MirakShadow<Ops>::next(Key const& key, Value& value, IterHint& hint) const {
   return store_->next(key, value, hint);
}

template <class Ops> void MirakShadow<Ops>::validateVersionAnchor() const { store_->validateVersionAnchor(); }

template <class Ops> Mem::CacheVersionAnchor MirakShadow<Ops>::getCacheVersionAnchor() const {
   return store_->getCacheVersionAnchor();
}

template <class Ops> Mem::MountStatus MirakShadow<Ops>::mountStatus() const {
   if (flushing_) return Mem::MountStatus::flushing;
   auto const status = !this->initialized() ? Mem::MountStatus::notMounted
                       : synced_            ? Mem::MountStatus::synchronised
                                            : Mem::MountStatus::mounted;
   LOMI_TRACE(debugHandler(), 5, "MirakShadow", "{}", static_cast<int>(status));
   return status;
}

template <class Ops> Reader::Counters MirakShadow<Ops>::readerCounters() const {
   Reader::Counters counters = reader_.readerCounters();
   counters.shadowMappedSize = store_ ? store_->shadowMappedSize() : 0;
   counters.kestorMappedSize = store_ ? store_->kestorMappedSize() : 0;
   counters.queueBytesMapped = tesselReader_.primaryMappedSize() + tesselReader_.secondaryMappedSize();
   counters.sequencesSent = rusk_.sequencesSent();
   counters.resyncs = resyncs_;
   return counters;
}

template <class Ops> std::string MirakShadow<Ops>::dumpHeaders() const {
   return fmt::format("{}{}", tesselReader_.headersToString(), reader_.dumpHeaders());
}

} // namespace Mirak

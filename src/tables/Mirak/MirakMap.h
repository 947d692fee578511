// SPDX-License-Identifier: Apache-2.0
// Mirak::MirakMap: the object that stands in front of one collection. Its clients see one stable object;
// behind it a back end (MirakInterface.h) is created, replaced and retired as files appear, writers restart
// and mounts end. Nearly every operation is a forward to that back end. What it adds: mounting and letting go
// (MirakMapMount.h), the boundary at which damage is met, and the settings and figures that are kept over
// changes of the back end.
//
//   state            initialized  back end         sentry    mountStatus
//
//   constructed      false        a private table  none      notMounted
//
//   writer mounted   true         MirakWriter      writer's  mounted (a local one has no sentry)
//
//   reader waiting   true         MirakDummy       reader's  notMounted
//
//   reader mounted   true         MirakReader      reader's  mounted; a shadow: or synchronised
//
//   flushing         true         a shadow         disabled  flushing
//
//   let go, orphan   false        a placeholder    none      notMounted
//
// There is always a back end to call once the first one was given (by the typed adapter, or by init()), so no
// caller asks. A placeholder owns what it replaced, so that cleanup() reaches it.
//
// Callbacks to the client (notify) may call anything here, also controlDetach() and init(). After each of
// them the operation that called looks whether it still stands on the same back end, and ends if not; so a
// client that lets go in a callback hears nothing more of what was going on. They must not destroy the
// collection, and not run the loop: what is let go is deleted from there.
//
// One thread, the owner's; the sentry's calls come on it, too, from its Lomi::TaskSchedulerRoot.
#pragma once

#include "Mem/Notify.h"
#include "Mem/WriterSentry.h"
#include "Mirak/MirakDummy.h"
#include "Mirak/MirakInterface.h"
#include "Mirak/MirakMapBase.h"
#include "Mirak/MirakReader.h"
#include "Mirak/MirakShadow.h"
#include "Mirak/MirakWriter.h"

#include <memory>
#include <string>
#include <utility>

namespace Mirak {

template <class Ops> class HOFLOW_EXPORT MirakMap : public MirakMapBase, public Mem::WriterSentry::Notifiee {
public:
   using OpsType = Ops;
   using Key = typename Ops::Key;
   using Value = typename Ops::Value;
   using BackEnd = MirakInterface<Ops>;

   /// Touches no file, and has no back end yet. @param collectionName its path below the root
   explicit MirakMap(std::string collectionName = {});
   ~MirakMap() override;

   // --- rows, with the boundary at which damage is met ---
   // Damage: doCorruptionDetected(). Where that returns, a read has found nothing; a change has no result, so
   // the process stops. All other exceptions are the back end's (MirakInterface.h, MirakWriter.h).

   Value const* safeLookup(Key const& key, bool& found, void* buffer) const;
   Value const* safeWrite(Value const& value);
   bool safeRemove(Key const& key, Value& removed);
   /// Publishes a row that directWrite() or directUpdate() of the back end handed out.
   void directCommit();

   /// For what has no boundary here: walks, direct changes. The reference is good until the back end changes.
   BackEnd& back() const {
      LOMI_ASSERT(back_, *debugHandler, "collection {} has no back end yet", name);
      return *back_;
   }

   // --- mounting (MirakMapMount.h) ---

   using MirakMapBase::init;
   void init(Mem::CollectionDescriptor const& descriptor) override;
   void controlDetach() override;
   void cleanupAndDetach() override;
   void tryAttach() const override;
   void attach(std::string const& event) override;
   void detach(bool force) override;
   /// Puts a placeholder before the present back end: one that answers as an empty table, or, with
   /// `assertOnOrphanAccess`, one on which any access stops the process.
   void installDummy();
   /// A shadow's end of a flush: puts a placeholder before `flushed` unless something else stands there by
   /// now, lets the sentry work again, and tells the client. `flushed` must touch nothing of its own after
   /// it.
   void flushComplete(BackEnd const& flushed);
   /// Puts the callbacks on rows to work again that an asynchronous shadow's mount set aside. Called by the
   /// shadow when its copy is complete for the first time.
   void callbacksLive();
   /// A private table of 100 rows' capacity under the collection's name.
   std::unique_ptr<BackEnd> createDefaultLocalWriter(Lomi::Platform::DebugHandler const& handler) const;

   // --- forwards ---

   void cleanup() override { traced(__func__).cleanup(); }
   bool validate() override { return traced(__func__).validate(); }
   bool inDirectMode() const override { return back().inDirectMode(); }
   bool validateFiles(std::string const&, unsigned) override { return traced(__func__).validateFiles(); }
   Mem::MountStatus mountStatus() const override { return traced(__func__).mountStatus(); }
   u64 sequence() const override { return traced(__func__).sequence(); }
   bool quiesced() const override;
   u64 clientQuiesced(std::string const& readerName) const override;
   Reader::Counters readerCounters() const override;
   Writer::Counters writerCounters() const override;
   std::string owner() const override;

   std::string collName() const override { return back().mirakName(); }
   Mem::NaoRootPath rootPath() const override { return back().rootPath(); }
   u32 maxSize() const override { return back().maxSize(); }
   u32 capacity() const override { return back().capacity(); }
   bool connected() const override { return back().connected(); }
   Parcel::KestorId kestorId() const override { return back().kestorId(); }
   bool criticalTaskCheck() const override { return back().criticalTaskCheck(); }
   void criticalTaskCheckIs(bool on) const override { back().criticalTaskCheckIs(on); }
   u64 scratchpad() const override { return back().scratchpad(); }
   void scratchpadIs(unsigned long long value) override { back().scratchpadIs(value); }
   void validateVersionAnchor() const override { back().validateVersionAnchor(); }
   void validateVersionAnchorHookIs(void (*hook)(Mem::VersionAnchor const&)) override {
      back().validateVersionAnchorHookIs(hook);
   }
   Mem::CacheVersionAnchor getCacheVersionAnchor() const override { return back().getCacheVersionAnchor(); }
   bool compareVersionAnchor(Mem::CacheVersionAnchor const& cached) const override {
      return getCacheVersionAnchor() == cached;
   }
   using MirakMapBase::notifying;
   void notifyingIs(bool notifying) const override;
   void yieldTimeIs(double const& seconds) const override;
   std::string classType() const override { return {}; }

protected:
   /// Replaces the back end. The old one ends at once, or in the loop if it may be on the stack.
   void backIs(std::unique_ptr<BackEnd> back);

   /// The back end of a shadow or keyshadow with these options (MirakShadowBase's flags). Null: the
   /// collection stays on its placeholder.
   virtual std::unique_ptr<BackEnd> newShadow(u32 shadowFlags) {
      return std::make_unique<MirakShadow<Ops>>(*debugHandler, name, shadowFlags, ops, *this, notify);
   }

   Mem::Notify<Key, Value> notify; ///< to the client
   Ops ops;                        ///< copied into each back end

private:
   class Mounting;
   BackEnd& traced(char const* operation) const;
   static bool isFollower(MirakType type) {
      return type == MirakType::shadow || type == MirakType::keyshadow;
   }
   static bool isAsynchronous(MapDescriptor const& descriptor) {
      return isFollower(descriptor.type) && !descriptor.synchronous && !descriptor.local;
   }
   void cleanupBeforeInit();
   bool alreadyMounted(MapDescriptor const& wanted) const;
   void checkDescriptor(MapDescriptor const& wanted) const;
   void deferCallbacks();
   bool mountWriter();
   bool mountReader();
   std::unique_ptr<BackEnd> newBackEnd(std::string const& event);
   void notAttached(std::unique_ptr<BackEnd> fallback);
   void tellMounted();
   template <class Stands> void tell(bool quiesced, Stands stands);
   void sentryFollows();
   std::unique_ptr<BackEnd> exchangeBack(std::unique_ptr<BackEnd> back);
   void retire(std::unique_ptr<BackEnd> back);
   void end(std::unique_ptr<BackEnd> back);

   std::unique_ptr<BackEnd> back_; ///< null until the first one is given
};

// Each forward's only cost beyond the call, when level 5 is off: one load and one branch.
template <class Ops> auto MirakMap<Ops>::traced(char const* operation) const -> BackEnd& {
   BackEnd& to = back();
   if (debugHandler->traces(5))
      Lomi::fmtrace(*debugHandler, 5, "MirakMap", operation, "{}", to.rootPath().str());
   return to;
}

template <class Ops>
auto MirakMap<Ops>::safeLookup(Key const& key, bool& found, void* buffer) const -> Value const* {
   try {
      return back().lookup(key, found, buffer);
   } catch (Lomi::CorruptionDetectedException const& e) {
      found = false;
      doCorruptionDetected(e.msg());
      return &Ops::typeDefault();
   }
}

template <class Ops> auto MirakMap<Ops>::safeWrite(Value const& value) -> Value const* {
   try {
      return back().write(value, true);
   } catch (Lomi::CorruptionDetectedException const& e) {
      doCorruptionDetected(e.msg());
      LOMI_ASSERT(false, *debugHandler, "{}", "in no man's land");
   }
   return nullptr;
}

template <class Ops> bool MirakMap<Ops>::safeRemove(Key const& key, Value& removed) {
   try {
      return back().remove(key, removed);
   } catch (Lomi::CorruptionDetectedException const& e) {
      doCorruptionDetected(e.msg());
      LOMI_ASSERT(false, *debugHandler, "{}", "in no man's land");
   }
   return false;
}

template <class Ops> void MirakMap<Ops>::directCommit() {
   try {
      back().directCommit();
   } catch (Lomi::CorruptionDetectedException const& e) {
      doCorruptionDetected(e.msg());
      LOMI_ASSERT(false, *debugHandler, "{}", "in no man's land");
   }
}

// --- forwards with a word more ---

template <class Ops> bool MirakMap<Ops>::quiesced() const {
   // The type is the descriptor's: a strict placeholder must not be asked for its own.
   LOMI_TRACE(*debugHandler, 5, "MirakMap", "{} type:{}", rootPath().str(), modeStr());
   return back().quiesced();
}

template <class Ops> u64 MirakMap<Ops>::clientQuiesced(std::string const& readerName) const {
   LOMI_TRACE(*debugHandler, 5, "MirakMap", "{} readerName:{}", rootPath().str(), readerName);
   return back().clientQuiesced(readerName);
}

template <class Ops> Reader::Counters MirakMap<Ops>::readerCounters() const {
   return mirakMapUpdateReaderCounters(traced(__func__).readerCounters());
}

template <class Ops> Writer::Counters MirakMap<Ops>::writerCounters() const {
   return mirakMapUpdateWriterCounters(traced(__func__).writerCounters());
}

template <class Ops> std::string MirakMap<Ops>::owner() const { return ownerOf(traced(__func__).rootPath()); }

template <class Ops> void MirakMap<Ops>::notifyingIs(bool value) const {
   LOMI_TRACE(*debugHandler, 5, "MirakMap", "{} notifying:{}", name, value);
   LOMI_ASSERT(!initialized() || notify.notifyLive, *debugHandler,
               "not allowed at this time, initialized:{} keyNotifications:{}", initialized(),
               notify.notifyLive);
   notifying_ = value;
   if (back_) back_->notifyingIs(value);
   if (value && mounter_) mounter_->event(eventNotifEnabled_, false);
}

template <class Ops> void MirakMap<Ops>::yieldTimeIs(double const& seconds) const {
   LOMI_TRACE(*debugHandler, 5, "MirakMap", "{} yieldTime:{}", name, seconds);
   yieldTime_ = seconds;
   if (back_) back_->yieldTimeIs(seconds);
}

} // namespace Mirak

#include "Mirak/MirakMapMount.h"

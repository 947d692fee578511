// SPDX-License-Identifier: Apache-2.0
// How a collection is mounted and let go. Included by MirakMap.h only.
//
// A writer gets its back end in init(). A reader never does: it stands on a placeholder until its sentry
// finds the table and calls attach(), perhaps still from within init(). Each back end tells the client of
// itself only when it works, and its end is told when the placeholder is there:
//
//   writer init, reader attach   quiescedFn(true), mountStatusFn()
//   shadow attach                mountStatusFn(); the rest comes from the shadow
//   detach                       quiescedFn(false), mountStatusFn()
//   end of a flush               mountStatusFn()
#pragma once

#include "Lomi/DeleteLater.h"
#include "Lomi/Util.h"
#include "Mirak/MirakMap.h"

#include <cstdlib>
#include <exception>

namespace Mirak {

template <class Ops>
MirakMap<Ops>::MirakMap(std::string collectionName)
   : MirakMapBase(std::move(collectionName)) {}

template <class Ops> MirakMap<Ops>::~MirakMap() {
   LOMI_TRACE(*debugHandler, 2, "MirakMap", "{}", "deleting state");
   dropMounter(); // it calls operations that are gone in the base
}

// --- the back end ---

template <class Ops>
auto MirakMap<Ops>::exchangeBack(std::unique_ptr<BackEnd> back) -> std::unique_ptr<BackEnd> {
   ++backChanges_;
   back_.swap(back);
   return back;
}

template <class Ops> void MirakMap<Ops>::backIs(std::unique_ptr<BackEnd> back) {
   retire(exchangeBack(std::move(back)));
}

template <class Ops> void MirakMap<Ops>::retire(std::unique_ptr<BackEnd> back) {
   if (!back) return;
   // What a placeholder replaced was counted when it was replaced.
   if (!dynamic_cast<PlaceholderBase<Ops>*>(back.get()))
      keepCounters(back->readerCounters(), back->writerCounters());
   end(std::move(back));
}

template <class Ops> void MirakMap<Ops>::end(std::unique_ptr<BackEnd> back) {
   if (back && back->callsBack()) Lomi::deleteLater(std::move(back));
}

template <class Ops> void MirakMap<Ops>::installDummy() {
   std::unique_ptr<PlaceholderBase<Ops>> placeholder;
   if (assertOnOrphanAccess)
      placeholder = std::make_unique<MirakStrictDummy<Ops>>(
          *debugHandler, name, ops,
          ". If you're seeing this, you're trying to operate on an orphan mirak entity");
   else
      placeholder = std::make_unique<MirakDummy<Ops>>(*debugHandler, name, ops);
   auto& fresh = *placeholder;
   auto old = exchangeBack(std::move(placeholder));
   if (!old) return;
   // One placeholder takes the other's place, or a client that detaches again and again would grow a chain.
   if (auto* const present = dynamic_cast<PlaceholderBase<Ops>*>(old.get())) {
      fresh.prevBackIs(present->takePrevBack());
   } else {
      keepCounters(old->readerCounters(), old->writerCounters());
      fresh.prevBackIs(std::move(old));
   }
}

template <class Ops>
auto MirakMap<Ops>::createDefaultLocalWriter(Lomi::Platform::DebugHandler const& handler) const
    -> std::unique_ptr<BackEnd> {
   MapDescriptor settings(100);
   settings.local = true;
   auto table = std::make_unique<Tmp<Ops>>(handler, name.c_str(), settings, ops);
   table->initialize("none");
   return table;
}

// --- init ---

/// All or nothing: done(), or undo(), which puts back what was there before init().
template <class Ops> class MirakMap<Ops>::Mounting {
public:
   Mounting(MirakMap& map, MapDescriptor const& wanted)
      : map_(map)
      , descriptor_(std::exchange(map.descriptor, wanted))
      , debugHandler_(map.debugHandler)
      , notifyWasLive_(map.notify.notifyLive)
      , back_(map.exchangeBack(nullptr)) {
      map_.stage_ = Stage::mounting;
   }
   Mounting(Mounting const&) = delete;
   Mounting& operator=(Mounting const&) = delete;

   void done() { map_.retire(std::move(back_)); }
   void undo() {
      map_.dropMounter();
      auto failed = map_.exchangeBack(std::move(back_));
      map_.descriptor = descriptor_;
      map_.debugHandler = debugHandler_;
      map_.stage_ = Stage::none;
      // A follower that stood already has said so.
      bool const told = failed && failed->type() != MirakType::writer &&
                        failed->mountStatus() != Mem::MountStatus::notMounted;
      letGo(std::move(failed));
      if (notifyWasLive_) map_.callbacksLive();
      try {
         if (told) map_.tell(false, [] { return true; });
      } catch (...) { // what made the mount fail is on its way
      }
   }

private:
   /// A shadow stands already where its client threw when it was told of the mount.
   void letGo(std::unique_ptr<BackEnd> failed) {
      try {
         if (failed && failed->callsBack()) failed->detach(true);
      } catch (...) { // what made the mount fail is on its way
      }
      map_.end(std::move(failed));
   }

   MirakMap& map_;
   MapDescriptor const descriptor_;
   std::shared_ptr<Lomi::Platform::DebugHandler> const debugHandler_;
   bool const notifyWasLive_;
   std::unique_ptr<BackEnd> back_;
};

template <class Ops> void MirakMap<Ops>::init(Mem::CollectionDescriptor const& given) {
   LOMI_ASSERT(
       !assertOnOrphanAccess, *debugHandler, "{}",
       "Re-initializing a collection that has already become an orphan and has assertOnOrphanAccess set");
   MapDescriptor const wanted = dynamic_cast<MapDescriptor const&>(given);
   if (wanted.cleanupOnInit && back_) cleanupBeforeInit();
   if (alreadyMounted(wanted)) return;
   LOMI_TRACE(*debugHandler, 1, "MirakMap", "name:{} {}", name, wanted);
   checkDescriptor(wanted);

   Mounting mounting(*this, wanted);
   bool mounted = false;
   try {
      deferCallbacks();
      debugHandler =
          Lomi::Platform::getDebugHandler(Lomi::Util::traceHandleName(name, traceName, false), true);
      LOMI_ASSERT(!mounter_, *debugHandler, "{}", "Mirak mounter should not exist");
      LOMI_ASSERT(!wanted.prevValue, *debugHandler, "{}",
                  "prevValue mount-time option enabled without prevValueSupport ZEBO attribute enabled");
      mounted = wanted.local || wanted.type == MirakType::writer ? mountWriter() : mountReader();
   } catch (...) {
      mounting.undo(); // here, and not on the way out: a client that is told of a flush may write its tables
      throw;
   }
   mounting.done();
   if (!mounted) return; // let go again by the client, in a callback
   stage_ = Stage::mounted;
   if (wanted.type == MirakType::writer) tellMounted();
}

/// An init with `cleanupOnInit`. Under a mounted writer it takes the files away all the same: that is what
/// was asked for, and it goes on in files that nobody else finds.
template <class Ops> void MirakMap<Ops>::cleanupBeforeInit() {
   if (initialized())
      LOMI_TRACE(*debugHandler, 0, "MirakMap", "removing the files of {} while it is mounted", name);
   back_->cleanup();
}

template <class Ops> bool MirakMap<Ops>::alreadyMounted(MapDescriptor const& wanted) const {
   // In a callback of controlDetach() of a collection that isn't mounted nothing is mounted.
   if (stage_ == Stage::none) return lettingGo_;
   if (descriptor == wanted) {
      LOMI_TRACE(*debugHandler, 5, "MirakMap", "name:{} already initialized, new {}", name, wanted);
      return true;
   }
   std::string const text =
       fmt::format("name:{} already initialized, old {}, new {}", name, descriptor, wanted);
   LOMI_TRACE(*debugHandler, 0, "MirakMap", "{}", text);
   throw Lomi::InvalidInitializeException(text);
}

template <class Ops> void MirakMap<Ops>::checkDescriptor(MapDescriptor const& wanted) const {
   auto const refuse = [](std::string text) { throw Lomi::InvalidInitializeException(std::move(text)); };
   if (wanted.heap && !wanted.local)
      refuse(
          fmt::format("cannot initialize collection {} heap allocation in non-local mode not allowed", name));
   if (wanted.type == MirakType::writer && wanted.size == 0)
      refuse(fmt::format("0 is not a valid initialization size for collection {} in writer mode", name));
   LOMI_ASSERT(!isAsynchronous(wanted) || notifying_, *debugHandler, "{}",
               "notifications unexpectedly disabled prior to initialization with asynchronous mode");
   if constexpr (!Ops::hasChangeQueue)
      if (isFollower(wanted.type))
         refuse(fmt::format("cannot initialize collection {} with DummyTesselWriter not supported in {} mode",
                            name, formatMirakType(wanted.type)));
}

/// While an asynchronous shadow fills its copy, its client is told nothing: the callbacks wait. They do so
/// once; a mount that follows before they came back finds them waiting, and any other kind of mount takes
/// them back.
template <class Ops> void MirakMap<Ops>::deferCallbacks() {
   if (!isAsynchronous(descriptor)) return callbacksLive();
   if (!std::exchange(notify.notifyLive, false)) return;
   notify.deferredChangeFn = std::exchange(notify.changeFn, [](Value const&) {});
   notify.deferredKeyFn = std::exchange(notify.keyFn, [](Key const&) {});
   notify.deferredKeyDelFn = std::exchange(notify.keyDelFn, [](Key const&) {});
}

template <class Ops> void MirakMap<Ops>::callbacksLive() {
   if (std::exchange(notify.notifyLive, true)) return;
   notify.changeFn = std::exchange(notify.deferredChangeFn, [](Value const&) {});
   notify.keyFn = std::exchange(notify.deferredKeyFn, [](Key const&) {});
   notify.keyDelFn = std::exchange(notify.deferredKeyDelFn, [](Key const&) {});
}

/// @return whether the mount still stands
template <class Ops> bool MirakMap<Ops>::mountWriter() {
   LOMI_TRACE(*debugHandler, 5, "MirakMap", "creating {}MirakWriter {} of {}", localMem() ? "local " : "",
              name, classType());
   backIs(
       std::make_unique<MirakWriter<Ops>>(*debugHandler, name.c_str(), descriptor, ops, notify.quiescedFn));
   if (!back_->initialize("none"))
      throw Lomi::InvalidInitializeException(fmt::format("failed to initialize collection {}", name));
   if (localMem()) return true;
   mounter_ = std::make_unique<Mem::WriterSentry>(*debugHandler, this, back_->rootPath());
   mounter_->event(eventInit_, false);
   return true;
}

/// @return whether the mount still stands: the first event may attach, and the client let go when it is told
template <class Ops> bool MirakMap<Ops>::mountReader() {
   LOMI_ASSERT(isFollower(mode()) || mode() == MirakType::reader, *debugHandler, "not a valid reader type:{}",
               formatMirakType(mode()));
   Mem::NaoRootPath const place(*debugHandler, name, false); // refuses a name that no table can have
   backIs(std::make_unique<MirakDummy<Ops>>(*debugHandler, name, ops));
   u64 const ended = mountsEnded_;
   try {
      mounter_ = std::make_unique<Mem::ReaderSentry>(*debugHandler, place, this);
      mounter_->event(eventInit_, false);
   } catch (std::exception const& e) {
      // In a changed root directory there may be nothing to watch, and that is known.
      if (!std::getenv("Q7_CHROOT")) throw;
      LOMI_TRACE(*debugHandler, 0, "MirakMap", "the sentry of {} did not start: {}", name, e.what());
   }
   return mountsEnded_ == ended;
}

// --- attach ---

template <class Ops> auto MirakMap<Ops>::newBackEnd(std::string const& event) -> std::unique_ptr<BackEnd> {
   if (mode() == MirakType::reader) return std::make_unique<MirakReader<Ops>>(*debugHandler, name, ops);
   bool const again = descriptor.reattach || event != eventInit_;
   using Shadow = MirakShadowBase;
   return newShadow((mode() == MirakType::keyshadow ? Shadow::shadowFlagKeyOnly : 0) |
                    (again ? Shadow::shadowFlagResume : 0) |
                    (descriptor.shadowOption ? Shadow::shadowFlagNotifyOnFlush : 0));
}

template <class Ops> void MirakMap<Ops>::attach(std::string const& event) {
   LOMI_ASSERT(mode() != MirakType::writer, *debugHandler, "{}", "invoked for a writer");
   if (lettingGo_) return; // a back end that came now would outlive its mount
   bool const sameShadow = isFollower(mode()) && back().type() == MirakType::shadow;
   std::unique_ptr<BackEnd> fallback;
   if (sameShadow) {
      fallback = std::make_unique<MirakDummy<Ops>>(*debugHandler, name, ops);
      ++backChanges_;
   } else {
      auto fresh = newBackEnd(event);
      if (!fresh) {
         LOMI_TRACE(*debugHandler, 1, "MirakMap", "{} stays on its placeholder as {}", name, modeStr());
         return;
      }
      fallback = exchangeBack(std::move(fresh));
   }
   LOMI_TRACE(*debugHandler, 2, "MirakMap", "attempting to attach {} as {}", rootPath().str(), modeStr());
   BackEnd const* const tried = back_.get();
   u64 const ended = mountsEnded_;
   bool works = false;
   try {
      back_->yieldTimeIs(yieldTime_);
      back_->notifyingIs(notifying_);
      works = back_->initialize(event);
   } catch (...) {
      if (back_.get() == tried) notAttached(std::move(fallback));
      throw;
   }
   if (back_.get() != tried) return retire(std::move(fallback)); // the client let go in a callback
   if (mountsEnded_ != ended) { // in one of the flush that this attach has ended
      back_->detach(true);
      return backIs(std::move(fallback));
   }
   if (!works) return notAttached(std::move(fallback));
   LOMI_TRACE(*debugHandler, 2, "MirakMap", "{}", "successful");
   if (mounter_) mounter_->enabled = 1; // perhaps it ended a flush, for which the sentry was off
   retire(std::move(fallback));
   if (back_->type() == MirakType::reader)
      tellMounted();
   else
      notify.mountStatusFn();
}

template <class Ops> void MirakMap<Ops>::notAttached(std::unique_ptr<BackEnd> fallback) {
   LOMI_TRACE(*debugHandler, 1, "MirakMap", "initialize failed for {}", name);
   bool const damaged = back_->damageFound();
   if (back_->mountStatus() == Mem::MountStatus::flushing) {
      LOMI_TRACE(*debugHandler, 0, "MirakMap", "{}", "not deleting Mirak, waiting for flush to complete");
      end(std::move(fallback));
   } else {
      backIs(std::move(fallback));
      sentryFollows(); // perhaps it ended a flush
   }
   if (damaged && mounter_) mounter_->event(eventCorruption_, false);
}

template <class Ops> void MirakMap<Ops>::tellMounted() {
   tell(true, [this, changes = backChanges_] { return backChanges_ == changes; });
}

/// Both words, whatever a listener to the first one throws: that goes on when all have been told.
template <class Ops> template <class Stands> void MirakMap<Ops>::tell(bool quiesced, Stands stands) {
   std::exception_ptr thrown;
   try {
      notify.quiescedFn(quiesced);
   } catch (...) {
      thrown = std::current_exception();
   }
   if (stands()) notify.mountStatusFn();
   if (thrown) std::rethrow_exception(thrown);
}

template <class Ops> void MirakMap<Ops>::tryAttach() const {
   LOMI_TRACE(*debugHandler, 5, "MirakMap", "{}", name);
   if (!mounter_ || mode() == MirakType::writer) return;
   auto const before = back().mountStatus();
   if (before != Mem::MountStatus::notMounted) {
      LOMI_TRACE(*debugHandler, 5, "MirakMap", "{} is already mounted, mountStatus:{}", name,
                 static_cast<int>(before));
      return;
   }
   mounter_->event(eventTryAttach_, false);
   if (auto const now = back().mountStatus(); now != before)
      Lomi::Util::emitCanaryLog(
          fmt::format("mounted {} mountStatus:{}", rootPath().str(), static_cast<int>(now)));
}

// --- letting go ---

template <class Ops> void MirakMap<Ops>::detach(bool force) {
   LOMI_TRACE(*debugHandler, 1, "MirakMap", "{}", Mem::NaoRootPath(*debugHandler, name, true).str());
   // A flush calls the client, who may let go altogether; then it has been told of it. What it throws there
   // goes on when the back end is gone and the rest has been told.
   auto const letGo = [this, before = mountsEnded_] { return mountsEnded_ != before; };
   BackEnd const* const leaving = back_.get();
   std::exception_ptr thrown;
   try {
      if (back_) back_->detach(force);
   } catch (...) {
      thrown = std::current_exception();
   }
   if (back_.get() == leaving) {
      bool const flushing = back_ && back_->mountStatus() == Mem::MountStatus::flushing;
      if (!flushing || !mounter_) installDummy();
      sentryFollows();
   }
   auto const stands = [&, changes = backChanges_] { return !letGo() && backChanges_ == changes; };
   if (!letGo()) tell(false, stands);
   if (stands() && mounter_) mounter_->onDetach();
   if (thrown) std::rethrow_exception(thrown);
}

template <class Ops> void MirakMap<Ops>::flushComplete(BackEnd const& flushed) {
   if (back_.get() == &flushed) installDummy();
   sentryFollows();
   notify.mountStatusFn();
}

/// The sentry leaves a collection alone that empties itself; the end of that is an event to it.
template <class Ops> void MirakMap<Ops>::sentryFollows() {
   if (!mounter_) return;
   unsigned char const follows = back_->mountStatus() != Mem::MountStatus::flushing;
   if (std::exchange(mounter_->enabled, follows) < follows) mounter_->event(eventFlushComplete_, false);
}

template <class Ops> void MirakMap<Ops>::controlDetach() {
   if (lettingGo_) return; // the client, in a callback of the one that is at work
   // The mount ends, whatever the client throws when it is told.
   struct End {
      MirakMap& map;
      explicit End(MirakMap& collection)
         : map(collection) {
         map.lettingGo_ = true;
      }
      ~End() {
         if (map.assertOnOrphanAccess) map.installDummy(); // perhaps an orphan since a callback of this
         map.dropMounter();
         map.stage_ = Stage::none;
         ++map.mountsEnded_;
         map.lettingGo_ = false;
      }
   } const end(*this);
   if (mounter_) mounter_->close(); // so that no callback attaches again
   detach(true);
}

template <class Ops> void MirakMap<Ops>::cleanupAndDetach() {
   traced(__func__);
   LOMI_ASSERT(initialized(), *debugHandler, "{} trying to cleanup uninitialized mirak.", rootPath().str());
   cleanup();
   controlDetach();
}

} // namespace Mirak

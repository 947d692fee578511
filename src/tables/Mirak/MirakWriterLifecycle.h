// SPDX-License-Identifier: Apache-2.0
// MirakWriter from construction to destruction: claim the directory, adopt or format the files, prove them,
// let readers in, let go. Included by MirakWriter.h only.
//
// What a crash leaves, by the order of the steps in attach():
//   - the kestor file is written last, and taken away before anything is formatted. So "a kestor file whose
//     id stands in both table files" means: this table was complete, and only its operations since (the
//     critical section bit, the walks) decide whether it is adopted;
//   - a crash anywhere in a re-format leaves no kestor file; the next start makes a new id, which matches
//     neither file, and formats all anew. A half-formatted or emptied table is never taken for the published
//     one.
#pragma once

#include "Mem/Atomics.h"
#include "Mem/Clone.h"
#include "Mem/FileCalls.h"
#include "Mirak/MirakWriter.h"
#include "Mirak/Validator.h"

#include <unistd.h>

namespace Mirak {

template <class Ops>
MirakWriter<Ops>::MirakWriter(Lomi::Platform::DebugHandler const& handler, char const* name,
                              MapDescriptor const& descriptor, Ops const& ops, QuiesceHandler quiesce)
   : ops_(ops)
   , debugHandler_(handler)
   , localMem_(descriptor.local)
   , shrinkBuckets_(descriptor.shrinkBuckets_)
   , rootPath_(handler, name, descriptor.local)
   , quiesce_(std::move(quiesce))
   , criticalTaskCheck_(descriptor.criticalTaskCheck)
   , slots_(handler, rootPath_, descriptor, ops_, counters_, [this] { beforeFormat(); })
   , map_(handler, rootPath_, descriptor.local, ops_, slots_, anchor_, counters_, [this] { beforeFormat(); })
   , queue_(
         handler, rootPath_, descriptor, SlotTableType::fileName, [this] { beforeFormat(); },
         [this] { return kestorId_; }, criticalTaskCheck_) {
   if (descriptor.heap) {
      slots_.wrapper().useHeapIs(true);
      map_.buckets().wrapper().useHeapIs(true);
   }
   if (descriptor.trackMemory) slots_.wrapper().trackMemoryIs(true);
}

template <class Ops> MirakWriter<Ops>::~MirakWriter() { detach(false); }

template <class Ops> bool MirakWriter<Ops>::initialize(std::string const&) {
   LOMI_ASSERT(localMem_ || Mem::Atomics::checkCpuSupport(), debugHandler_, "{}",
               "Hardware does not support Atomics");
   if (this->initialized()) return true;
   if (slots_.maxSlots() == 0)
      throw Lomi::InvalidInitializeException(fmt::format(
          "0 is not a valid initialization size for collection {} in writer mode", rootPath_.name()));
   // No catch: where nobody handles the exception of a strict validation, nothing is unwound, and the core
   // file shows the table.
   struct Undo {
      MirakWriter& writer;
      ~Undo() {
         if (!writer.initialized()) writer.release();
      }
   } const undo{*this};
   attach();
   this->initializedIs(true);
   return true;
}

/// Whether a file has the present id already, although it is meant to be a new one.
template <class Ops> bool MirakWriter<Ops>::standsInFiles() const {
   auto stands = [&](char const* file) { return Util::storedKestor(rootPath_, file) == kestorId_.value(); };
   return !localMem_ &&
          (stands(SlotTableType::fileName) || stands(MirakCore::BucketWriter<SlotLink>::fileName));
}

template <class Ops> void MirakWriter<Ops>::attach() {
   LOMI_TRACE(debugHandler_, 5, "MirakWriter", "localMem_:{} rootPath:{}", localMem_, rootPath_.str());
   if (!localMem_) rootPath_.makeDirectories();
   Parcel::KestorFile kestorFile(debugHandler_, rootPath_, localMem_);
   Parcel::OwnerFile ownerFile(debugHandler_, rootPath_, localMem_);
   ownerFile.lock();
   Parcel::TunnetInfo tunnetInfo;
   if (localMem_) {
      auto const pid = static_cast<u16>(getpid());
      kestorId_ = Parcel::KestorId(pid != 0 ? pid : u16{1}, 0);
   } else {
      writerLock_.emplace(Mem::WriterLock::acquireWriterLock(debugHandler_, rootPath_, ownerFile, false));
      if constexpr (Ops::hasChangeQueue) tunnetInfo = queue_.ruskSm.tunnetInfo();
      kestorId_ = kestorFile.readOrThrow();
      // A process with the number of the last one would make its id again (in a container each has the same),
      // and adopt what a crash half way through a format left.
      if (kestorId_.value() == 0) {
         do kestorId_ = Util::newKestorId();
         while (standsInFiles());
      }
   }
   bool const ownerInvalid = !ownerFile.validate();
   if (ownerInvalid)
      LOMI_TRACE(debugHandler_, 1, "MirakWriter",
                 "owner file validation failed, dumping owner file string: {}", ownerFile.headerToString());
   kestorRemoved_ = false;
   ownerFile.typeNameIs(Ops::Value::typeName);
   ownerFile.parcelTypeIs(Parcel::ParcelType::mirak);
   if (!attachAndValidate(ownerInvalid, ownerFile, tunnetInfo)) {
      LOMI_ASSERT(!ownerInvalid, debugHandler_, "{}", "failed to attach to and validate new files");
      attachAndValidate(true, ownerFile, tunnetInfo);
   }
   if (localMem_) return;
   Util::removeCorruptionFile(rootPath_);
   if constexpr (Ops::hasChangeQueue) queue_.ruskSm.doEnableListen();
   kestorFile.write(kestorId_);
   armRelease();
   LOMI_TRACE(debugHandler_, 1, "MirakWriter", "success {} capacity:{} kestorId:{} mtime:{} tunnetInfo:{}",
              rootPath_.str(), capacity(), kestorId_.text(), kestorFile.mtime(), tunnetInfo.socketName);
}

template <class Ops>
bool MirakWriter<Ops>::attachAndValidate(bool reformat, Parcel::OwnerFile& ownerFile,
                                         Parcel::TunnetInfo const& tunnetInfo) {
   std::string error;
   if (!reformat) {
      char const* unusable = nullptr;
      if (!attach(kestorId_)) {
         unusable = "failed to attach to existing files";
      } else if (!validate(kestorId_, error, false)) {
         if (Util::runningOnPhysicalDut() && Util::strictValidation()) {
            // The damaged table goes into a core file, and the next start begins afresh.
            Parcel::KestorFile(debugHandler_, rootPath_, localMem_).remove();
            slots_.wrapper().dumpToCoreIs(true);
            map_.buckets().wrapper().dumpToCoreIs(true);
            Lomi::Util::includeShmemInCore();
            throw Lomi::InvalidInitializeException(
                fmt::format("failed initial validation of {} after re-attaching", rootPath_.str()));
         }
         unusable = "failed to validate existing files";
      }
      if (unusable) {
         LOMI_TRACE(debugHandler_, 0, "MirakWriter", "{}", unusable);
         LOMI_TRACE(debugHandler_, 0, "MirakWriter", "{}", dumpHeaders());
         LOMI_TRACE(debugHandler_, 0, "MirakWriter", "owner file: {}", ownerFile.headerToString());
         return false;
      }
   } else {
      LOMI_TRACE(debugHandler_, 1, "MirakWriter", "all entries from {} will be lost", rootPath_.str());
      do kestorId_.bumpHigh();
      while (standsInFiles());
      attach(kestorId_); // the stored generation differs now, so every file formats itself
      if (!validate(kestorId_, error, false)) throw Lomi::InvalidInitializeException("failed validation");
   }
   queue_.reserve(slots_.capacity());
   if (localMem_) return true;
   ownerFile.tunnetInfoIs(tunnetInfo);
   bool const valid = ownerFile.validate(error);
   LOMI_ASSERT(valid, debugHandler_, "wrote to owner file but validation failed: {}", error);
   owner_ = true;
   if (reformat) LOMI_TRACE(debugHandler_, 1, "MirakWriter", "{}", "re-formatted successfully");
   return valid;
}

/// The files of a table can only be trusted together: all new or all kept, anything else is no success.
template <class Ops> bool MirakWriter<Ops>::attach(Parcel::KestorId kestor) {
   counters_ = {};
   anchor_ = {};
   slotsKept_ = false;
   int result = slots_.attach(kestor);
   slotsKept_ = result == MirakCore::attachedExisting;
   result |= map_.buckets().attach(kestor);
   map_.updateThresholds();
   if constexpr (Ops::hasChangeQueue) result |= queue_.tesselWriter.attach(kestor);
   return result == MirakCore::attachedNew || result == MirakCore::attachedExisting;
}

/// One of the files is about to be formatted: take the published generation back, so that no start after a
/// crash and no reader believes in it. That holds for a file that was missing, too: an empty one beside the
/// old other one is no table. Readers that are inside learn of it through the slot file's header.
template <class Ops> void MirakWriter<Ops>::beforeFormat() {
   if (localMem_) return;
   if (!kestorRemoved_) Parcel::KestorFile(debugHandler_, rootPath_, localMem_).remove();
   kestorRemoved_ = true;
   // SYNC(kestor) store: 0 is no generation. The slot file, kept a moment ago, will be formatted after all.
   if (slotsKept_) Mem::storeShared(slots_.header().kestor, u32{0});
}

template <class Ops> bool MirakWriter<Ops>::validate() {
   std::string error;
   return validate(kestorId_, error, true);
}

template <class Ops>
bool MirakWriter<Ops>::validate(Parcel::KestorId kestor, std::string& error, bool checkOwner) {
   refuseReentrancy();
   if (inDirectMode()) refuseUnbalanced("", "");
   if (!attached()) {
      error = fmt::format("no open table: {}", rootPath_.str());
      return false;
   }
   bool sound = false;
   std::string caught;
   try {
      Validator<Ops, MirakWriter> validator(debugHandler_, *this);
      typename HashMap::Marking const marking(map_, validator);
      sound = validator.doValidate(kestor);
      error = validator.error();
   } catch (Lomi::CorruptionDetectedException const& e) {
      caught = e.what();
   } catch (Lomi::MemoryResourceException const& e) {
      caught = e.what();
   }
   if (!caught.empty()) {
      LOMI_TRACE(debugHandler_, 0, "MirakWriter", "caught: {}", caught);
      error = caught;
   }
   if (!sound)
      LOMI_TRACE(debugHandler_, 0, "MirakWriter", "Mirak {} validation failed: {}", rootPath_.str(), error);
   if (checkOwner) sound = Parcel::OwnerFile(debugHandler_, rootPath_, localMem_).validate() && sound;
   return sound;
}

template <class Ops> bool MirakWriter<Ops>::validateFiles() {
   if (localMem_) return true;
   map_.buckets().validateFile();
   u64 const mapped = slots_.wrapper().mappedSize();
   Util::validateFile(debugHandler_, slots_.wrapper().getFilename(),
                      mapped ? mapped : SlotTable<Ops>::headerSize);
   if constexpr (Ops::hasChangeQueue) queue_.tesselWriter.validateFile();
   Parcel::KestorFile(debugHandler_, rootPath_, localMem_).validate(kestorId_);
   Parcel::OwnerFile(debugHandler_, rootPath_, localMem_).validateFile();
   Util::removeCorruptionFile(rootPath_);
   return true;
}

template <class Ops> void MirakWriter<Ops>::detach(bool) {
   LOMI_TRACE(debugHandler_, 5, "MirakWriter", "owner:{} localMem_:{} rootPath:{}", owner_, localMem_,
              rootPath_.str());
   refuseReentrancy();
   if (directNew_) refuseUnbalanced("", "");
   directSlot_ = noSlot;
   if constexpr (Ops::hasChangeQueue) queue_.tesselWriter.onDetach();
   if (owner_) {
      try {
         Parcel::OwnerFile ownerFile(debugHandler_, rootPath_, localMem_);
         if (Mem::WriterLock::ownerIsMe(debugHandler_, rootPath_)) {
            // A damaged record throws here: it must not be made good by writing it anew.
            ownerFile.tunnetInfo();
            LOMI_TRACE(debugHandler_, 5, "MirakWriter", "{}", "clearing tunnetInfo");
            ownerFile.tunnetInfoIs({});
         }
      } catch (Lomi::CorruptionDetectedException const& e) {
         LOMI_TRACE(debugHandler_, 0, "MirakWriter", "ignoring owner file corruption:{}", e.what());
      } catch (Lomi::Exception const& e) {
         // The destructor comes here, too.
         LOMI_TRACE(debugHandler_, 0, "MirakWriter", "cannot clear the owner file of {}: {}", rootPath_.str(),
                    e.what());
      }
      owner_ = false;
   }
   release();
   this->initializedIs(false);
}

template <class Ops> void MirakWriter<Ops>::release() {
   releaseTimer_.cancel();
   if constexpr (Ops::hasChangeQueue) {
      queue_.ruskSm.disableListen();
      queue_.tesselWriter.detach();
   }
   slots_.detach();
   map_.buckets().detach();
   if (anchor_.offset != Mem::anchorUnset) anchor_.offset = Mem::anchorGone;
   writerLock_.reset(); // last: from here on another writer may claim the directory
}

template <class Ops> void MirakWriter<Ops>::cleanup() {
   LOMI_TRACE(debugHandler_, 5, "MirakWriter", "owner:{} localMem_:{} rootPath:{}", owner_, localMem_,
              rootPath_.str());
   if (localMem_ || !rootPath_.exists()) return;
   Parcel::OwnerFile ownerFile(debugHandler_, rootPath_, localMem_);
   ownerFile.lock();
   // A lock that another process holds can't be taken away from it: then this throws, and nothing is removed.
   // Asked also with a lock of our own: somebody may have removed that one's file, and another writer begun.
   auto const lock = Mem::WriterLock::acquireWriterLock(debugHandler_, rootPath_, ownerFile, true);
   owner_ = ownerFile.validate();
   if (!owner_)
      LOMI_TRACE(debugHandler_, 1, "MirakWriter",
                 "owner file corruption detected but continuing with cleanup, dumped owner file: {}",
                 ownerFile.headerToString());
   LOMI_TRACE(debugHandler_, 1, "MirakWriter", "removing Mirak files in {}", rootPath_.str());
   Util::removeCorruptionFile(rootPath_);
   if constexpr (Ops::hasChangeQueue) queue_.tesselWriter.cleanup();
   map_.buckets().cleanup();
   LOMI_TRACE(debugHandler_, 3, "MirakWriter", "removing file: {}", slots_.wrapper().getFilename());
   if (!slots_.wrapper().remove()) throw Lomi::RuntimeException(slots_.wrapper().lastError());
   Parcel::KestorFile(debugHandler_, rootPath_, localMem_).remove();
   Util::removeFile(rootPath_, Mem::Util::Clone::CONTROL_FILENAME);
   Util::removeFile(rootPath_, Parcel::OwnerFile::FILENAME);
   owner_ = false;
}

template <class Ops> std::string MirakWriter<Ops>::dumpHeaders() const {
   return fmt::format("Mirak table \"{}\"\n\n\n{}\n\n{}\n\n", rootPath_.str(),
                      attached() ? slots_.header().toString() : "detached", map_.buckets().headerToString());
}

template <class Ops> Writer::Counters MirakWriter<Ops>::writerCounters() const {
   counters_.slotBytesMapped = slots_.wrapper().mappedSize();
   counters_.bucketBytesMapped = map_.buckets().wrapper().mappedSize();
   if constexpr (Ops::hasChangeQueue) queue_.countInto(counters_);
   return counters_;
}

template <class Ops> u64 MirakWriter<Ops>::sequence() const {
   if constexpr (Ops::hasChangeQueue)
      return attached() ? queue_.tesselWriter.tail() : 0;
   else
      return 0;
}

template <class Ops> u64 MirakWriter<Ops>::clientQuiesced(std::string const& name) const {
   if constexpr (Ops::hasChangeQueue)
      return queue_.tesselWriter.clientQuiesced(name);
   else
      return 0;
}

template <class Ops> bool MirakWriter<Ops>::releasePending() const {
   return slots_.wrapper().releasePending() || map_.buckets().wrapper().releasePending() ||
          queue_.releasePending();
}

/// Every operation gives back in passing what is due. This is for the table to which none comes any more: it
/// needs an agent that runs its loop.
template <class Ops> void MirakWriter<Ops>::armRelease() {
   constexpr double pause = 0.11; // a little more than the time that readers are given
   if (releaseTimer_.active() || !releasePending()) return;
   auto const release = [this] {
      releaseDue();
      if (!releasePending()) releaseTimer_.cancel();
   };
   try {
      releaseTimer_ =
          Lomi::TaskSchedulerRoot::root().timerTask(pause, release, Lomi::TaskPriority::normal, pause);
   } catch (std::exception const& e) {
      // No descriptor left, say. The operation that we are in is good; the next one gives back what is due.
      LOMI_TRACE(debugHandler_, 0, "MirakWriter", "no timer for {}: {}", rootPath_.str(), e.what());
   }
}

template <class Ops> Mem::MountStatus MirakWriter<Ops>::mountStatus() const {
   LOMI_TRACE(debugHandler_, 5, "MirakWriter", "initialized:{}", this->initialized());
   return this->initialized() ? Mem::MountStatus::mounted : Mem::MountStatus::notMounted;
}

} // namespace Mirak

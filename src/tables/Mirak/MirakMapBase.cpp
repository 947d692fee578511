// SPDX-License-Identifier: Apache-2.0
#include "Mirak/MirakMapBase.h"

#include "Lomi/DeleteLater.h"
#include "Lomi/Exception.h"
#include "Mem/WriterLock.h"
#include "Mirak/Util.h"
#include "Parcel/KestorFile.h"
#include "Parcel/OwnerFile.h"
#include "Rusk/TunnetName.h"

#include <algorithm>

namespace Mirak {

MirakMapBase::MirakMapBase(std::string collectionName)
   : debugHandler(Lomi::Platform::getDebugHandler("MirakTemp", false))
   , name(std::move(collectionName)) {}

MirakMapBase::~MirakMapBase() { dropMounter(); }

void MirakMapBase::init(MirakType type, bool local, unsigned size) {
   MapDescriptor wanted(size);
   wanted.type = type;
   wanted.local = local;
   init(wanted);
}

bool MirakMapBase::ready() const {
   bool const copies = !localMem() && (mode() == MirakType::shadow || mode() == MirakType::keyshadow);
   return mountStatus() == (copies ? Mem::MountStatus::synchronised : Mem::MountStatus::mounted);
}

bool MirakMapBase::exists() const {
   if (localMem()) return initialized();
   return Parcel::KestorFile(*debugHandler, Mem::NaoRootPath(*debugHandler, name, true), false)
              .read()
              .value() != 0;
}

bool MirakMapBase::readerFullyAttached() const {
   auto const status = mountStatus();
   return status == Mem::MountStatus::mounted || status == Mem::MountStatus::synchronised;
}

bool MirakMapBase::disconnectedActiveReader() const {
   return (mode() == MirakType::shadow || mode() == MirakType::keyshadow) && readerFullyAttached() &&
          !connected();
}

void MirakMapBase::dropMounter() {
   if (!mounter_) return;
   mounter_->close();
   std::unique_ptr<Mem::Sentry> leaving = std::move(mounter_);
   if (leaving->inCall()) Lomi::deleteLater(std::move(leaving));
}

void MirakMapBase::handleDisconnect() {
   LOMI_TRACE(*debugHandler, 1, "MirakMapBase", "{}", name);
   LOMI_ASSERT(mode() == MirakType::shadow || mode() == MirakType::keyshadow, *debugHandler, "wrong type:{}",
               modeStr());
   if (mounter_) mounter_->event(eventDisconnect_, false);
}

// --- damage ---

void MirakMapBase::doCorruptionDetected(std::string const& message) const {
   if (mode() != MirakType::writer && !localMem()) return readerCorruption(message);
   LOMI_TRACE(*debugHandler, 0, "MirakMapBase", "corruption detected in {}: {}", name, message);
   if (initialized() && !localMem()) Util::writeCorruptionFile(*debugHandler, rootPath().str(), message);
   LOMI_ASSERT(false, *debugHandler, "corruption detected in {}: {}", name, message);
}

/// Until the loop lets the sentry work, each read may come here: only the first one of a back end is told.
void MirakMapBase::readerCorruption(std::string const& message) const {
   if (corruptionAt_ == backChanges_) return;
   corruptionAt_ = backChanges_;
   bool const damage = Util::isDamage(*debugHandler, rootPath(), kestorId(), &message);
   LOMI_TRACE(*debugHandler, damage ? 0 : 1, "MirakMapBase", "{} {}: {}",
              damage ? "corruption detected in" : "formatted anew:", name, message);
   if (mounter_) mounter_->event(damage ? eventCorruption_ : Mem::Sentry::eventFiles, false);
}

// --- the writer ---

std::string MirakMapBase::ownerOf(Mem::NaoRootPath const& rootPath) const {
   Parcel::OwnerFile const file(*debugHandler, rootPath, false);
   std::string socketName;
   try {
      socketName = file.tunnetInfo().socketName;
   } catch (Lomi::CorruptionDetectedException const& e) {
      // No record yet, of a table that isn't there yet either, is no damage.
      LOMI_ASSERT(file.validate(), *debugHandler, "corruption detected: {}", e.msg());
   }
   u32 pid = 0;
   if (!Mem::WriterLock::ownerIsAlive(*debugHandler, rootPath, &pid)) return ":0";
   // A table without a queue has no socket; then the record's own word must do.
   if (auto const tunnet = Rusk::TunnetNameIs(socketName); tunnet.valid) pid = tunnet.processId;
   return fmt::format("{}:{}", Mem::WriterLock::processName(pid), pid);
}

// --- figures ---

namespace {

// What counts events is added up; a size is that of the present back end alone.
void add(Reader::Counters& sum, Reader::Counters const& more) {
   sum.lookups += more.lookups;
   sum.lookasideReads += more.lookasideReads;
   sum.retries += more.retries;
   sum.nextSlowPath += more.nextSlowPath;
   sum.wrapperRetries += more.wrapperRetries;
   sum.slotResizes += more.slotResizes;
   sum.remaps += more.remaps;
   sum.buckets.resizes += more.buckets.resizes;
   sum.buckets.remaps += more.buckets.remaps;
   sum.resyncs += more.resyncs;
   sum.shadowBucketGrows += more.shadowBucketGrows;
   sum.shadowBucketShrinks += more.shadowBucketShrinks;
   sum.shadowSlotGrows += more.shadowSlotGrows;
   sum.shadowSlotShrinks += more.shadowSlotShrinks;
   sum.shadowPatches += more.shadowPatches;
   sum.shadowKeyMismatches += more.shadowKeyMismatches;
   sum.shadowWrites += more.shadowWrites;
   sum.shadowKeyMoves += more.shadowKeyMoves;
   sum.pendingLookupHits += more.pendingLookupHits;
   sum.pendingLookupMisses += more.pendingLookupMisses;
   sum.failedNotifications += more.failedNotifications;
   sum.sequencesSent += more.sequencesSent;
}

void add(Writer::Counters& sum, Writer::Counters const& more) {
   sum.lookups += more.lookups;
   sum.slotsAllocated += more.slotsAllocated;
   sum.slotsFreed += more.slotsFreed;
   sum.slotsMoved += more.slotsMoved;
   sum.slotGrows += more.slotGrows;
   sum.slotShrinks += more.slotShrinks;
   sum.bucketGrows += more.bucketGrows;
   sum.bucketShrinks += more.bucketShrinks;
   sum.remaps += more.remaps;
   sum.nextSlowPath += more.nextSlowPath;
   sum.directWrites += more.directWrites;
   sum.directUpdates += more.directUpdates;
   sum.directCommits += more.directCommits;
   sum.longestBucketGrow = std::max(sum.longestBucketGrow, more.longestBucketGrow);
   sum.longestBucketShrink = std::max(sum.longestBucketShrink, more.longestBucketShrink);
   sum.ruskCount += more.ruskCount;
   sum.sequencesProcessed += more.sequencesProcessed;
   sum.droppedPeers += more.droppedPeers;
   sum.queueTurns += more.queueTurns;
}

} // namespace

void MirakMapBase::keepCounters(Reader::Counters const& reader, Writer::Counters const& writer) {
   add(keptReader_, reader);
   add(keptWriter_, writer);
}

Reader::Counters MirakMapBase::mirakMapUpdateReaderCounters(Reader::Counters&& counters) const {
   add(counters, keptReader_);
   return counters;
}

Writer::Counters MirakMapBase::mirakMapUpdateWriterCounters(Writer::Counters&& counters) const {
   add(counters, keptWriter_);
   return counters;
}

} // namespace Mirak

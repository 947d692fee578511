// SPDX-License-Identifier: Apache-2.0
// MirakReader's opening and closing, its way to follow a resize, and its anchor. Included by MirakReader.h,
// which says what is guaranteed. Nothing here is on the path of a read that meets no resize.
#pragma once

#include "Lomi/Util.h"
#include "Mem/Atomics.h"
#include "Mem/VersionMismatchException.h"
#include "Mirak/MirakReader.h"
#include "Mirak/Util.h"

namespace Mirak {

template <class Ops>
MirakReader<Ops>::MirakReader(Lomi::Platform::DebugHandler const& handler, std::string name, Ops const& ops,
                              Reader::Counters* counters)
   : debugHandler_(handler)
   , rootPath_(handler, std::move(name), false)
   , ownCounters_(counters ? nullptr : std::make_unique<Reader::Counters>())
   , counters_(counters ? *counters : *ownCounters_)
   , betweenRetries_([] {})
   , ops_(ops)
   , slots_(handler, rootPath_, counters_, ops_.keyOps.hashSeed)
   , buckets_(handler, rootPath_, counters_.buckets, this) {}

template <class Ops> bool MirakReader<Ops>::initialize(std::string const& event) {
   if (!Mem::Atomics::checkCpuSupport())
      throw Lomi::InvalidInitializeException("Hardware does not support Atomics");
   if (this->initialized()) return true;
   initializeError_.clear();
   damageFound_ = false;
   bool opened = false;
   try {
      opened = open(event);
   } catch (...) {
      release();
      throw;
   }
   if (!opened) release();
   return opened;
}

/// The steps of initialize(). Whatever they leave behind on false, release() undoes.
template <class Ops> bool MirakReader<Ops>::open(std::string const& event) {
   auto& buckets = buckets_.buckets();
   std::string error;
   if (!buckets.attach(error))
      return fail("failed to attach to buckets", buckets.mapping().getFilename(), error);
   if (!slots_.attach(error)) return fail("failed to attach to slots", slots_.mapping().getFilename(), error);

   Parcel::KestorFile const kestorFile(debugHandler_, rootPath_, false);
   kestorId_ = kestorFile.read();
   double const mtime = kestorFile.mtime();
   if (kestorId_.value() == 0) {
      // The writer writes it last and removes it before it formats: the table isn't ready.
      fail("failed to read kestor file", kestorFile.getFilename(), "absent or unreadable");
      LOMI_TRACE(debugHandler_, 0, "MirakReader", "{}", dumpHeaders());
      return false;
   }
   if (!validateBuckets() || !validateSlots()) return false;
   // What was validated is of this generation only if nobody began to format meanwhile.
   if (Parcel::KestorId const now = kestorFile.read(); now != kestorId_)
      return fail("failed to read kestor file", kestorFile.getFilename(),
                  fmt::format("changed from {} to {} meanwhile", kestorId_, now));

   this->initializedIs(true);
   LOMI_TRACE(debugHandler_, 1, "MirakReader",
              "success {} capacity:{} kestorId:{} mtime:{} delay:{} event:{}", rootPath_.str(), capacity(),
              kestorId_, mtime, Lomi::time() - mtime, event);
   return true;
}

template <class Ops> bool MirakReader<Ops>::validateBuckets() {
   auto& buckets = buckets_.buckets();
   std::string error;
   try {
      if (buckets.validate(kestorId_, error)) return true;
   } catch (Lomi::MemoryResourceException const& e) {
      return fail("failed to validate buckets", buckets.mapping().getFilename(), e.what()); // no damage
   }
   return failCorrupt("failed to validate buckets", buckets.mapping().getFilename(), error);
}

template <class Ops> bool MirakReader<Ops>::validateSlots() {
   using Table = SlotReaderTable<Ops>;
   SlotTableHeader copy;
   u64 const memSize = slots_.copyHeader(copy);
   std::string const file = slots_.mapping().getFilename();
   // A sound header of another table's type is no damage: the asker is wrong. Its sizes would fail below.
   if (copy.magic == SlotTableHeader::magicValue && copy.version == SlotTableHeader::formatVersion &&
       copy.hash == copy.checksum())
      if (std::string const mismatch = Table::typeMismatch(copy); !mismatch.empty())
         return fail("failed to validate slots", file, mismatch);
   std::string error;
   if (!copy.validate(debugHandler_, memSize, kestorId_, Table::headerSize, Table::slotSize, error))
      return failCorrupt("failed to validate slots", file, error);
   // The seed of the copy that was validated; the one that attach() saw may be older.
   slots_.hashSeedIs(copy.hashSeed);
   return true;
}

/// Says what failed, in the trace and in initializeError(). @return false
template <class Ops>
bool MirakReader<Ops>::fail(char const* what, std::string const& file, std::string const& why) {
   initializeError_ = fmt::format("{}: {}: {}", what, file, why);
   LOMI_TRACE(debugHandler_, 0, "MirakReader", "{}", what);
   LOMI_TRACE(debugHandler_, 0, "MirakReader", "{}: {}", file, why);
   return false;
}

/// The same for headers that can't be right, with the marker file for it, unless another table's files have
/// taken the place of these meanwhile.
template <class Ops>
bool MirakReader<Ops>::failCorrupt(char const* what, std::string const& file, std::string const& why) {
   fail(what, file, why);
   LOMI_TRACE(debugHandler_, 0, "MirakReader", "{}", dumpHeaders());
   damageFound_ = mapsFilesOfPath() &&
                  Util::isDamage(debugHandler_, rootPath_, kestorId_, corruptionMarker_ ? &why : nullptr);
   return false;
}

template <class Ops> void MirakReader<Ops>::release() {
   buckets_.buckets().detach();
   slots_.detach();
   if (!this->initialized()) kestorId_ = {};
}

template <class Ops> void MirakReader<Ops>::detach(bool) {
   if (!this->initialized()) {
      LOMI_TRACE(debugHandler_, 5, "MirakReader", "already detached");
      return;
   }
   release();
   this->initializedIs(false);
   LOMI_TRACE(debugHandler_, 1, "MirakReader", "{} detached", rootPath_.str());
}

template <class Ops> bool MirakReader<Ops>::mapsFilesOfPath() const {
   return slots_.mapping().samePathFile() && buckets_.buckets().mapping().samePathFile();
}

template <class Ops> bool MirakReader<Ops>::filesReplaced() const {
   return this->initialized() && !mapsFilesOfPath();
}

template <class Ops> u32 MirakReader<Ops>::members() const {
   auto const* header = slots_.header();
   return header ? Mem::loadShared(header->occupiedSlots) : 0;
}

template <class Ops> u32 MirakReader<Ops>::maxSize() const {
   auto const* header = slots_.header();
   return header ? Mem::loadShared(header->maxSlots) : 0;
}

template <class Ops> u32 MirakReader<Ops>::headerCapacity() const {
   auto const* header = slots_.header();
   return header ? Mem::loadShared(header->numSlots.value) : 0;
}

template <class Ops> Reader::Counters MirakReader<Ops>::readerCounters() const {
   counters_.slotBytesMapped = slots_.mapping().mappedSize();
   counters_.buckets.bytesMapped = buckets_.buckets().mapping().mappedSize();
   return counters_;
}

template <class Ops> bool MirakReader<Ops>::follow() const {
   try {
      bool const slotsMoved = slots_.doResize();
      bool const bucketsMoved = buckets_.buckets().resize();
      checkGeneration();
      return slotsMoved || bucketsMoved;
   } catch (TableReformattedException const&) {
      throw;
   } catch (Lomi::CorruptionDetectedException const&) {
      checkGeneration();
      checkKestorFile();
      throw;
   }
}

/// For an operation that threw. @return false: neither file moved and no re-format began, the exception
/// stands
template <class Ops> bool MirakReader<Ops>::followAfterThrow() const {
   if (follow()) return true;
   checkKestorFile();
   return false;
}

template <class Ops> void MirakReader<Ops>::retry() const {
   ++counters_.wrapperRetries;
   betweenRetries_();
}

/// @throws Mirak::TableReformattedException when the slot file's header is no longer the one that was opened
template <class Ops> void MirakReader<Ops>::checkGeneration() const {
   auto const* header = slots_.header();
   if (!header) return;
   // SYNC(kestor) load: follows all loads of the operation.
   Parcel::KestorId const kestor(Mem::loadShared(header->kestor));
   if (kestor != kestorId_ || Mem::loadShared(header->hashSeed) != ops_.keyOps.hashSeed) reformatted(kestor);
}

/// Whether the slot file's header is the one that was opened. REQUIRES: attached.
template <class Ops> bool MirakReader<Ops>::sameFormat() const {
   // SYNC(kestor) load: follows all loads that it vouches for.
   auto const* header = slots_.header();
   return Mem::loadShared(header->kestor) == kestorId_.value() &&
          Mem::loadShared(header->hashSeed) == ops_.keyOps.hashSeed;
}

/// @throws Mirak::TableReformattedException when the kestor file is gone or says another generation
template <class Ops> void MirakReader<Ops>::checkKestorFile() const {
   Parcel::KestorId const kestor = Parcel::KestorFile(debugHandler_, rootPath_, false).read();
   if (kestor != kestorId_) reformatted(kestor);
}

template <class Ops> void MirakReader<Ops>::reformatted(Parcel::KestorId found) const {
   throw TableReformattedException(fmt::format("bad kestor:{} wanted:{}", found, kestorId_));
}

template <class Ops> void MirakReader<Ops>::validateVersionAnchor(Mem::VersionAnchor const& anchor) const {
   LOMI_ASSERT(anchor.offset != Mem::anchorUnset, debugHandler_,
               "should not be called on a default-constructed VersionAnchor");
   // A table that was formatted anew begins its words again: the same one may stand for another row.
   if (anchor.offset != Mem::anchorGone && slots_.anchorHolds(anchor) && sameFormat()) return;
   throw Mem::VersionMismatchException("");
}

template <class Ops> std::string MirakReader<Ops>::dumpHeaders() const {
   return fmt::format("Mirak table \"{}\"\n\n\n{}\n\n{}\n\n", rootPath_.str(), slots_.headerToString(),
                      buckets_.buckets().headerToString());
}

template <class Ops> SlotTableHeader MirakReader<Ops>::headerCopy() const {
   LOMI_ASSERT(slots_.attached(), debugHandler_, "header of a detached table: {}", rootPath_.str());
   SlotTableHeader copy;
   slots_.copyHeader(copy);
   return copy;
}

} // namespace Mirak

// SPDX-License-Identifier: Apache-2.0
// A collection as those see it who mount and supervise it, whatever its rows are: mounting and letting go,
// its place, its state, its figures. Mirak::MirakMapBase and Mirak::MirakMap implement it; rows are reached
// through the latter.
//
// Everything belongs to the one thread that owns the collection. Operations marked const that change a
// setting are so on purpose: supervisors hold collections as const.
#pragma once

#include "Mem/Paths.h"
#include "Mem/VersionAnchor.h"
#include "Mirak/Counters.h"
#include "Mirak/MapDescriptor.h"
#include "Parcel/KestorId.h"

#include <string>

namespace Mirak {

class HOFLOW_EXPORT ControlBase {
public:
   ControlBase() = default;
   ControlBase(ControlBase const&) = delete;
   ControlBase& operator=(ControlBase const&) = delete;

   /// Asks whether the row last read is still the current one. An error that stops the process where no row
   /// can have been read.
   /// @throws Mem::VersionMismatchException if it changed, was removed, or its slot is no longer mapped
   virtual void validateVersionAnchor() const = 0;
   virtual Mem::CacheVersionAnchor getCacheVersionAnchor() const = 0;
   /// Whether a row that was kept with this anchor is the one that was read last, in the same version.
   virtual bool compareVersionAnchor(Mem::CacheVersionAnchor const& cached) const = 0;
   virtual void validateVersionAnchorHookIs(void (*hook)(Mem::VersionAnchor const&)) = 0;
   virtual std::string collName() const = 0; ///< the path's last component
   /// Reads give the table's rows: a writer or a reader is mounted, a shadow has caught up.
   virtual bool ready() const = 0;
   /// The generation of the mounted table, value 0 for none.
   virtual Parcel::KestorId kestorId() const = 0;
   virtual Mem::MountStatus mountStatus() const = 0;
   virtual ~ControlBase() = default;
   /// Sums over all back ends that the collection has had, and the present one's sizes.
   virtual Reader::Counters readerCounters() const = 0;
   virtual Writer::Counters writerCounters() const = 0;

   /// Mounts the collection. A writer is mounted on return. A reader is, too, if its table is there;
   /// otherwise it is attached from the loop as soon as it is, and detached and attached as its table goes
   /// and comes. The same descriptor once more does nothing, except that `cleanupOnInit` removes the files
   /// first, also under a mounted writer. Where it throws, the collection is as before.
   /// @throws std::bad_cast: not a Mirak::MapDescriptor
   ///         Lomi::InvalidInitializeException: another descriptor while it is mounted, a descriptor that
   ///         makes no sense, another writer lives, the files can't be made
   ///         Lomi::MemoryResourceException: no space
   ///         What a callback throws passes through, too; a writer is mounted then.
   /// In a callback of init() itself the collection counts as mounted. So it does in one of controlDetach():
   /// mount it again after that.
   virtual void init(Mem::CollectionDescriptor const& descriptor) = 0;
   /// The same with a descriptor of these settings and the defaults.
   virtual void init(MirakType type, bool local, unsigned size) = 0;
   virtual bool initialized() const = 0;
   /// Ends table and mount. The process stops if the collection isn't mounted.
   virtual void cleanupAndDetach() = 0;
   /// Removes the table's files, of a mounted writer or of the one that was mounted last.
   /// @throws Lomi::InvalidInitializeException while another process is the table's writer
   virtual void cleanup() = 0;
   virtual Mem::NaoRootPath rootPath() const = 0;
   virtual bool validate() = 0;
   /// The arguments, by which a sentry says what made it ask, change nothing.
   /// @throws Lomi::CorruptionDetectedException naming the file that is missing or too short
   virtual bool validateFiles(std::string const& event, unsigned change) = 0;
   virtual MirakType mode() const = 0;
   virtual bool localMem() const = 0;
   virtual u64 sequence() const = 0;
   /// "NAME:PID" of the process that writes the table, ":0" if none does. A damaged owner file stops the
   /// process. @throws Lomi::RuntimeException if the system doesn't let it be read
   virtual std::string owner() const = 0;
   /// Ends the mount; files stay. Nothing attaches the collection again by itself.
   virtual void controlDetach() = 0;
   virtual u32 maxSize() const = 0;  ///< slots
   virtual u32 capacity() const = 0; ///< slots
   /// Whether the client wants to be told of changes; kept over all mounts. True unless set.
   virtual void notifyingIs(bool notifying) const = 0;
   virtual bool notifying() const = 0;
   /// How long a step of a sweep may take, in seconds; kept over all mounts. 0.05 unless set.
   virtual void yieldTimeIs(double const& seconds) const = 0;
   /// Attaches a waiting reader now, if its table is there.
   virtual void tryAttach() const = 0;
   /// Whether a table is published at the collection's place; of a private one, whether it is mounted.
   virtual bool exists() const = 0;
   virtual u64 clientQuiesced(std::string const& readerName) const = 0;
   virtual bool quiesced() const = 0;
   virtual bool connected() const = 0;
   virtual void criticalTaskCheckIs(bool on) const = 0;
   virtual bool criticalTaskCheck() const = 0;
   virtual void scratchpadIs(unsigned long long value) = 0;
   virtual u64 scratchpad() const = 0;

   // The sentry's side: not for clients.
   virtual void attach(std::string const& event) = 0;
   virtual void detach(bool force) = 0;
   virtual std::string modeStr() const = 0;
   /// A back end stands on the table and answers.
   virtual bool readerFullyAttached() const = 0;
   /// A mounted shadow whose writer has gone away.
   virtual bool disconnectedActiveReader() const = 0;

   /// The name of the client's class; empty without one.
   virtual std::string classType() const = 0;
};

} // namespace Mirak

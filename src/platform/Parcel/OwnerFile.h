// SPDX-License-Identifier: Apache-2.0
// The file that says whose table a directory is: process, start time, type name, and where the writer can be
// woken. It is one fixed record with a checksum, written in one call within one page; a killed writer leaves
// the old record or the new one, and a reader that meets a write reads again. Two bytes behind the record
// carry locks: one for lock(), one for Mem::WriterLock.
//
// What it says of the process is for people. Whether a writer lives is asked of the kernel, see
// Mem/WriterLock.h.
#pragma once

#include "Lomi/Export.h"
#include "Lomi/Trace.h"
#include "Mem/Paths.h"
#include "Mem/SharedWords.h"

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>

namespace Mem {
class LockedFile;
}

namespace Parcel {

using Mem::u32;
using Mem::u64;

/// How a reader reaches the writer. Empty if the writer can't be woken.
struct TunnetInfo {
   std::string socketName; // up to 107 bytes
   u32 tableId = 0;
   friend bool operator==(TunnetInfo const&, TunnetInfo const&) = default;
};

/// What kind of table a directory holds.
enum class ParcelType : u32 { none = 0, mirak = 1 };

/// What the record says, taken in one read.
struct OwnerFacts {
   u32 version = 0;
   u32 pid = 0;
   u64 startTime = 0; ///< nanoseconds since 1970
   std::string typeName;
   u32 parcelType = 0; ///< a ParcelType, or what another version knows
   TunnetInfo tunnetInfo;
};

/// A local table has no owner file: it is always valid, setters and lock() do nothing.
class HOFLOW_EXPORT OwnerFile {
public:
   static constexpr char const* FILENAME = "owner";
   static constexpr off_t serialiseByte = 65536; // locked by lock()
   static constexpr off_t writerByte = 65537;    // locked by Mem::WriterLock

   /// Touches no file.
   OwnerFile(Lomi::Platform::DebugHandler const& handler, Mem::NaoRootPath const& rootPath, bool local);
   ~OwnerFile();
   OwnerFile(OwnerFile const&) = delete;
   OwnerFile& operator=(OwnerFile const&) = delete;

   /// Waits for the directory and holds it until the object ends. Makes directory and file if need be. Two
   /// objects of one process exclude each other, so a thread must not lock the same directory twice. Throws
   /// Lomi::InvalidInitializeException if the file can't be opened.
   void lock();

   /// True if the record is sound, or if there is none and the directory holds no table either.
   bool validate() const;
   bool validate(std::string& error) const;
   /// True if the record is sound, else throws as tunnetInfo().
   bool validateFile() const;

   /// Each setter writes the whole record, with this process as the owner. Over a damaged record it begins an
   /// empty one. Throw Lomi::InvalidInitializeException for a text that is too long,
   /// Lomi::MemoryResourceException if there is no room, otherwise Lomi::RuntimeException.
   void typeNameIs(std::string const& typeName); // up to 511 bytes
   void parcelTypeIs(ParcelType type);
   void tunnetInfoIs(TunnetInfo const& info);
   /// Writes this process into the record, if there is a sound one.
   void refreshOwner();

   /// Throw Lomi::CorruptionDetectedException if the record is damaged or missing, Lomi::RuntimeException if
   /// the system doesn't let it be read (no right, no descriptor left). Both name the file.
   TunnetInfo tunnetInfo() const;
   std::string typeName() const;
   ParcelType parcelType() const;
   /// The recorded process, 0 if there is no sound record.
   u32 pid() const;

   /// Nothing if there is no sound record; then `error` says why.
   std::optional<OwnerFacts> facts(std::string& error) const;
   /// The record in words; of a damaged one, what is wrong with it.
   std::string headerToString() const;
   /// An absent file is no failure. Throws Lomi::RuntimeException if it can't be removed.
   void remove();
   std::string getFilename() const;

private:
   struct Record;
   bool read(Record& record, std::string& error, bool* refused = nullptr) const;
   Record readOrThrow() const;
   Record readOrNew() const;
   void write(Record& record);
   bool directoryHoldsTable() const;

   Mem::NaoRootPath rootPath_;
   bool local_;
   std::unique_ptr<Mem::LockedFile> locked_;
};

} // namespace Parcel

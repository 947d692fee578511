// SPDX-License-Identifier: Apache-2.0
// The one interface that every back end of a collection offers: writer, reader, shadow and the two
// placeholders. MirakInterfaceBase holds what does not depend on the row's type and the harmless defaults.
//
// One back end object belongs to one thread. Rows are copied by value; a returned `Value const*` points into
// the caller's buffer, the back end's own buffer or (writer only) the slot, and is good until the next call.
#pragma once

#include "Lomi/Exception.h"
#include "Mem/Paths.h"
#include "Mem/VersionAnchor.h"
#include "Mirak/Counters.h"
#include "Mirak/IterHint.h"
#include "Mirak/MapDescriptor.h"
#include "Mirak/Operations.h"
#include "Parcel/KestorId.h"

#include <string>

namespace Mirak {

class HOFLOW_EXPORT MirakInterfaceBase {
public:
   using AnchorHook = void (*)(Mem::VersionAnchor const&);

   virtual ~MirakInterfaceBase() = default;
   MirakInterfaceBase() = default;
   MirakInterfaceBase(MirakInterfaceBase const&) = delete;
   MirakInterfaceBase& operator=(MirakInterfaceBase const&) = delete;

   /// Opens the table. @param event what caused the attempt, for traces. @return false: not now, try again
   /// later
   virtual bool initialize(std::string const& event) = 0;
   /// Lets the table go; its files stay.
   virtual void detach(bool force) = 0;
   virtual bool validate() { return false; }
   virtual bool validateFiles() { return false; }
   /// Removes the table's files.
   virtual void cleanup() {}
   virtual u32 members() const = 0; ///< live rows
   virtual u32 buckets() const = 0;
   virtual u32 minSize() const = 0;  ///< slots
   virtual u32 maxSize() const = 0;  ///< slots
   virtual u32 capacity() const = 0; ///< slots
   virtual MirakType type() const = 0;
   virtual bool quiesced() const { return false; }
   virtual bool connected() const { return false; }
   virtual Writer::Counters writerCounters() const { return {}; }
   virtual Reader::Counters readerCounters() const { return {}; }
   virtual void notifyingIs(bool) {}
   virtual void yieldTimeIs(double const&) {}
   virtual u64 sequence() const { return 0; }
   virtual u64 clientQuiesced(std::string const&) const { return 0; }
   virtual Mem::NaoRootPath rootPath() const = 0;
   virtual std::string mirakName() const = 0;
   virtual Mem::MountStatus mountStatus() const = 0;
   virtual Parcel::KestorId kestorId() const { return {}; }
   /// Asks whether the row last read is still the current one.
   /// @throws Mem::VersionMismatchException if it changed, was removed, or its slot is no longer mapped
   virtual void validateVersionAnchor() const = 0;
   virtual void validateVersionAnchorHookIs(AnchorHook) {}
   virtual Mem::CacheVersionAnchor getCacheVersionAnchor() const { return {}; }
   virtual void criticalTaskCheckIs(bool) {}
   virtual bool criticalTaskCheck() const { return false; }
   virtual void scratchpadIs(u64) {}
   virtual u64 scratchpad() const { return 0; }
   /// Whether the last initialize() returned false because the files are damaged: they won't get better by
   /// waiting.
   virtual bool damageFound() const { return false; }
   /// Whether it calls its client from work of its own (a sweep, a queue's walk). Such a back end may be on
   /// the stack of whoever lets it go, so it is deleted from the loop.
   virtual bool callsBack() const { return false; }

   /// Whether a row is being built in place, between directWrite() or directUpdate() and directCommit().
   virtual bool inDirectMode() const { return false; }

   bool initialized() const { return initialized_; }
   void initializedIs(bool initialized) { initialized_ = initialized; }

private:
   bool initialized_ = false;
};

template <class Ops> class HOFLOW_EXPORT MirakInterface : public MirakInterfaceBase {
public:
   using Key = typename Ops::Key;
   using Value = typename Ops::Value;

   /// Stores a row. @param overwrite false: an existing row stays as it is.
   virtual Value const* write(Value const&, bool /*overwrite*/) { readOnly("write"); }
   /// Removes a row. @param removed receives it. @return false: no such row
   virtual bool remove(Key const&, Value& /*removed*/) { readOnly("remove"); }
   /// Looks a row up. @param found set to the outcome. @param buffer sizeof(Value) bytes for the row, or null
   /// @return the row, or the default value if there is none
   virtual Value const* lookup(Key const& key, bool& found, void* buffer) const = 0;
   /// Begins a walk. @return false: the table is empty
   virtual bool first(Value& value, IterHint& hint) const = 0;
   /// The row after `key` in table order, whether or not `key` is still there. @return false: the end.
   /// `key` may lie inside `value`.
   virtual bool next(Key const& key, Value& value, IterHint& hint) const = 0;
   virtual Value* directWrite(Value const&) { readOnly("write"); }
   virtual Value* directUpdate(Key const&) { readOnly("write"); }
   virtual void directCommit() { readOnly("write"); }
   virtual Value const* directLookup(Key const& key, bool& found, void* buffer) const {
      return lookup(key, found, buffer);
   }

private:
   [[noreturn]] static void readOnly(char const* what) {
      throw Lomi::NoPermissionException(std::string(what) + " to read-only Mirak table");
   }
};

} // namespace Mirak

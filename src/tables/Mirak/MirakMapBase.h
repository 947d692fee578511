// SPDX-License-Identifier: Apache-2.0
// The part of a collection's front object (MirakMap.h) that doesn't depend on its rows: settings, its sentry,
// the figures that are kept over changes of the back end, and what happens when the table turns out to be
// damaged.
#pragma once

#include "Lomi/Trace.h"
#include "Mem/ReaderSentry.h"
#include "Mem/Sentry.h"
#include "Mirak/ControlBase.h"

#include <memory>
#include <string>

namespace Mirak {

class HOFLOW_EXPORT MirakMapBase : public ControlBase, public Mem::ReaderSentry::Notifiee {
public:
   static constexpr char const* eventInit_ = Mem::Sentry::eventInit;
   static constexpr char const* eventTryAttach_ = Mem::Sentry::eventTryAttach;
   static constexpr char const* eventNotifEnabled_ = Mem::Sentry::eventNotifEnabled;
   static constexpr char const* eventDisconnect_ = Mem::Sentry::eventDisconnect;
   static constexpr char const* eventFlushComplete_ = Mem::Sentry::eventFlushComplete;
   static constexpr char const* eventCorruption_ = Mem::Sentry::eventCorruption;

   ~MirakMapBase() override;

   using ControlBase::init;
   void init(MirakType type, bool local, unsigned size) override;
   bool initialized() const override { return stage_ == Stage::mounted; }
   bool ready() const override;
   bool exists() const override;
   MirakType mode() const override { return descriptor.type; }
   bool localMem() const override { return descriptor.local; }
   std::string modeStr() const override { return formatMirakType(mode()); }
   bool notifying() const override { return notifying_; }
   bool readerFullyAttached() const override;
   bool disconnectedActiveReader() const override;

   // Named by both bases.
   Parcel::KestorId kestorId() const override = 0;
   void attach(std::string const& event) override = 0;
   void detach(bool force) override = 0;

   /// An operation met what no writer leaves in a table.
   ///   writer: traces at level 0, leaves the marker, and stops the process: nothing that it would store from
   ///           here on can be trusted. It doesn't return
   ///   reader: a table that was formatted anew meanwhile is no damage; the sentry attaches it from the loop.
   ///           Otherwise traces at level 0, leaves the marker if it may, and returns; the sentry detaches
   ///           the collection from the loop, so that its client sees a table that went away and not wrong
   ///           rows
   void doCorruptionDetected(std::string const& message) const;
   /// The connection to the table's writer is lost. Called by a shadow.
   void handleDisconnect();

   /// What the collection has counted so far, with the present back end's counters given.
   Reader::Counters mirakMapUpdateReaderCounters(Reader::Counters&& counters) const;
   Writer::Counters mirakMapUpdateWriterCounters(Writer::Counters&& counters) const;

   /// Moves on whenever another back end stands behind the collection, or the same one on another table. A
   /// hint of a walk (Mirak::IterHint) that is older must be thrown away: it may name a slot of a foreign
   /// chain.
   u64 backChanges() const { return backChanges_; }

protected:
   explicit MirakMapBase(std::string collectionName);

   /// Adds a back end's counters to those that are kept. Its sizes are not.
   void keepCounters(Reader::Counters const& reader, Writer::Counters const& writer);
   /// Ends the sentry, if there is one.
   void dropMounter();
   /// The name and the process id of the table's writer.
   std::string ownerOf(Mem::NaoRootPath const& rootPath) const;

   std::shared_ptr<Lomi::Platform::DebugHandler> debugHandler; ///< init() takes the collection's own
   MapDescriptor descriptor{0};                                ///< of the last init() that succeeded
   std::unique_ptr<Mem::Sentry> mounter_;                      ///< null when there is none
   /// A mount begins with init(), stands when that has succeeded, and ends with controlDetach().
   enum class Stage : unsigned char { none, mounting, mounted };
   Stage stage_ = Stage::none;
   bool lettingGo_ = false; ///< controlDetach() is on the stack; the stage is still the one before it
   u64 mountsEnded_ = 0;    ///< tells an operation that its client let the mount go in a callback
   std::string name;        ///< the collection's path below the root
   std::string traceName;   ///< names its traces; empty: its path does
   mutable bool notifying_ = true;
   mutable double yieldTime_ = 0.05; ///< seconds
   /// From now on access to the collection is an error that stops the process.
   bool assertOnOrphanAccess = false;
   u64 backChanges_ = 0;

private:
   void readerCorruption(std::string const& message) const;

   Reader::Counters keptReader_;
   Writer::Counters keptWriter_;
   mutable u64 corruptionAt_ = ~u64{0}; ///< the value of backChanges_ at which damage was reported last
};

} // namespace Mirak

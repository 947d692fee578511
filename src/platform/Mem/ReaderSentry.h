// SPDX-License-Identifier: Apache-2.0
// Watches a table for a collection that reads it, and attaches and detaches it:
//
//   a table is published                    attach, within milliseconds
//   its generation or its files change      detach, attach (the writer formatted it anew, or made it anew)
//   its generation or its files are gone    detach (a cleanup, or a format that has begun)
//   its writer dies, or takes it up again   nothing; a shadow without its connection is attached again
//   the collection found it damaged         detach; attach when a writer has published it again, or when the
//                                           marker, if there was one, is gone
//   attach didn't succeed                   once more when something happens in the directory; and after some
//                                           polls, at first after each, then more and more seldom, at last
//                                           once in twelve
//   no descriptor or memory is left to look  nothing; the next poll looks again
//
// So it never spins on a table that can't be read, and does nothing while nothing happens. A collection that
// is being emptied (`enabled` is 0) is left alone until its "flushComplete".
//
// What attach throws leaves event() for "init" and "tryAttach". In the loop it is traced at level 0 and taken
// as a failed attach, unless the collection is attached: then a callback of its client threw, and the loop
// passes it on.
#pragma once

#include "Lomi/TaskSchedulerRoot.h"
#include "Mem/DirectoryWatch.h"
#include "Mem/Sentry.h"
#include "Mem/TableState.h"

#include <optional>

namespace Mem {

class HOFLOW_EXPORT ReaderSentry final : public Sentry {
public:
   /// The collection.
   class HOFLOW_EXPORT Notifiee {
   public:
      virtual ~Notifiee() = default;
      /// A back end stands on the table and answers.
      virtual bool readerFullyAttached() const = 0;
      virtual bool notifying() const = 0;
      virtual bool localMem() const = 0;
      /// The generation that is attached; value 0 for none.
      virtual Parcel::KestorId kestorId() const = 0;
      /// "reader", "shadow", "keyshadow": for traces.
      virtual std::string modeStr() const = 0;
      virtual void detach(bool force) = 0;
      /// Tries to attach. Whether it succeeded is asked of readerFullyAttached().
      virtual void attach(std::string const& event) = 0;
      /// Attached, but the connection by which its writer wakes it is lost.
      virtual bool disconnectedActiveReader() const = 0;
   };

   /// Begins to watch. @param notifiee stays the caller's; must live until close()
   /// @throws Lomi::RuntimeException if the loop can't take a timer
   ReaderSentry(Lomi::Platform::DebugHandler const& handler, NaoRootPath const& rootPath, Notifiee* notifiee);
   ~ReaderSentry() override;

   void event(std::string const& name, bool) override;
   void onDetach() override;
   void close() override;

private:
   enum class Reason { told, polled, asked };
   void process(std::string const& event, Reason reason);
   void damageReported();
   bool leave(TableState const& now);
   bool mayAttach(TableState const& now, Reason reason);
   bool attach(std::string const& event, Reason reason, TableState const& now);
   TableState look();

   Lomi::Platform::DebugHandler const& handler_;
   NaoRootPath const rootPath_;
   Notifiee* notifiee_; ///< null when closed
   DirectoryWatch watch_;
   Lomi::Task deferred_;
   std::string deferredEvent_;

   TableState seen_;                             ///< at the last look
   std::optional<TableState> attached_;          ///< what the collection stands on
   std::optional<TableState> refused_;           ///< what attach failed on
   std::optional<TableState> damaged_;           ///< what was found damaged
   bool damageReported_ = false;                 ///< and isn't left yet
   unsigned pollsToNext_ = 0, pollsBetween_ = 1; ///< until a refused table is tried again
};

} // namespace Mem

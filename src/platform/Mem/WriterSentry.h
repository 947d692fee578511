// SPDX-License-Identifier: Apache-2.0
// Watches a table's place for the collection that writes it. Nobody but the writer may change anything there,
// so whatever happens is bad news:
//
//   a reader leaves its marker: the writer proves its table. If it is sound the marker is removed, and
//   readers try again; else the process is stopped, since the next start begins with a proof and a sound
//   table
//
//   the files are removed or replaced: traced at level 0, once for each change. The writer goes on in files
//   that nobody finds any more; they can't be put back, and what the agent wants then is its own matter
//
// The proof walks the whole table on the loop's thread. It is made only for a marker, and at most once a
// minute: a reader that is itself at fault must not keep the writer busy. It waits until a row that is built
// in place has been committed.
#pragma once

#include "Lomi/TaskSchedulerRoot.h"
#include "Mem/DirectoryWatch.h"
#include "Mem/Sentry.h"
#include "Mem/TableState.h"

#include <chrono>
#include <optional>

namespace Mem {

class HOFLOW_EXPORT WriterSentry final : public Sentry {
public:
   /// The collection.
   class HOFLOW_EXPORT Notifiee {
   public:
      virtual ~Notifiee() = default;
      virtual Parcel::KestorId kestorId() const = 0;
      /// A row is being built in place: the table isn't whole, and must not be proved.
      virtual bool inDirectMode() const = 0;
      /// Proves the open table. @return whether it is sound
      virtual bool validate() = 0;
      /// Whether the files are all there, and whole as far as their sizes say; removes the marker. The
      /// arguments say what made the sentry ask.
      /// @throws Lomi::CorruptionDetectedException naming the file that isn't
      virtual bool validateFiles(std::string const& event, unsigned change) = 0;
   };

   /// Begins to watch. @param notifiee stays the caller's; must live until close()
   /// @throws Lomi::RuntimeException if the loop can't take a timer
   WriterSentry(Lomi::Platform::DebugHandler const& handler, Notifiee* notifiee, NaoRootPath const& rootPath);
   ~WriterSentry() override;

   void event(std::string const& name, bool) override;
   void close() override;

private:
   void process(std::string const& event);
   bool mayProve();
   void prove();
   void checkFiles(std::string const& event);

   Lomi::Platform::DebugHandler const& handler_;
   NaoRootPath const rootPath_;
   Notifiee* notifiee_; ///< null when closed
   DirectoryWatch watch_;
   Lomi::Task deferred_;
   TableState seen_;
   std::optional<std::chrono::steady_clock::time_point> proved_; ///< when, last
};

} // namespace Mem

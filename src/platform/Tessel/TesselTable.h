// SPDX-License-Identifier: Apache-2.0
// The mapped files of a queue that both sides have: the header and the two tables. No decision is taken here.
#pragma once

#include "Mem/ParcelWrapper.h"
#include "Tessel/QueueFormat.h"

#include <string>

namespace Tessel {

class HOFLOW_EXPORT TesselTable : public Lomi::Debuggable {
public:
   static constexpr char const* headerFile = "tessel";
   static constexpr char const* tableFiles[2] = {"tessel.0", "tessel.1"};

   /// The queue's header and those of its tables, or a word that says there is none.
   std::string headersToString() const;
   bool attached() const { return headerWrapper_.isAttached(); }
   u64 primaryMappedSize() const { return tables_[0].mappedSize(); }
   u64 secondaryMappedSize() const { return tables_[1].mappedSize(); }

protected:
   TesselTable(Lomi::Platform::DebugHandler const& handler, Mem::NaoRootPath const& rootPath, bool local)
      : Debuggable(handler)
      , headerWrapper_(handler, rootPath, headerFile, local)
      , tables_{{handler, rootPath, tableFiles[0], local}, {handler, rootPath, tableFiles[1], local}} {}

   QueueHeader& header() { return *reinterpret_cast<QueueHeader*>(headerWrapper_.base()); }
   QueueHeader const& header() const { return *reinterpret_cast<QueueHeader const*>(headerWrapper_.base()); }
   QueueTable& table(u32 generation) {
      return *reinterpret_cast<QueueTable*>(tables_[generation & 1].base());
   }
   QueueTable const& table(u32 generation) const {
      return *reinterpret_cast<QueueTable const*>(tables_[generation & 1].base());
   }

   Mem::ParcelWrapper headerWrapper_;
   Mem::ParcelWrapper tables_[2];
};

} // namespace Tessel

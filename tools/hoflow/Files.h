// SPDX-License-Identifier: Apache-2.0
// A table's directory seen from outside, without knowing the rows' type: which files are there, what their
// headers say, whether a writer lives, and if the table can't be read, which file is the reason, what is
// wrong with it, and what to do. `list`, `show` and `header` live on this alone; the others ask it first, and
// after a reader's start that failed.
//
// Files are opened O_RDONLY, and headers are copied with pread: a file that someone cuts short meanwhile is
// an error and no signal. Nothing is stored and no lock is taken.
#pragma once

#include "Mem/Paths.h"
#include "Mirak/AnyTable.h"
#include "MirakCore/BucketTable.h"
#include "OneFile.h"
#include "Output.h"
#include "Parcel/KestorId.h"
#include "Parcel/OwnerFile.h"
#include "QueueFiles.h"

#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

namespace Tool {

enum class State { ok, halfMade, absent, unreadable, unknownType, otherVersion, foreign, corrupt };
std::string_view stateText(State state);

struct Inspection {
   std::string name, path;
   FileFacts slots, buckets, kestor, owner;
   std::optional<Mirak::SlotTableHeader> slotHeader; ///< as far as there is one, sound or not
   std::optional<MirakCore::BucketTableHeader> bucketHeader;
   QueueLook queue; ///< if the table has one
   Parcel::KestorId kestorId;
   double kestorTime = 0; ///< when the writer let readers in
   bool writerAlive = false;
   std::uint32_t writerPid = 0;                  ///< 0 if not known
   std::string ownerText;                        ///< the owner file in words, or what is wrong with it
   std::optional<Parcel::OwnerFacts> ownerFacts; ///< if it is sound
   std::string ownerProblem; ///< no trouble for readers, but the next writer formats such a table anew
   bool marked = false;      ///< "corruption-detected" is there
   Mirak::TableType const* type = nullptr; ///< of the rows, if this build knows it

   State state = State::ok;
   std::string problem; ///< names the file; empty if the state is ok
   std::string hint;

   Exit status() const;
   Failure failure() const { return {status(), problem, hint}; }
   bool inOperation() const {
      return slotHeader && slotHeader->runtimeFlags & Mirak::SlotTableHeader::inCriticalSection;
   }
   /// The last writer died inside an operation: the rows can be read, the next writer formats the table anew.
   bool interrupted() const { return state == State::ok && inOperation() && !writerAlive; }
};

/// Looks at the table of that name. A trouble that a writer at work may cause for a moment is looked at
/// again, for a quarter of a second.
/// @throws Failure if the name can't be a path below the root
Inspection inspect(std::string const& name);
/// One look, and no second one.
Inspection glance(std::string const& name);

/// Whether the table's writer feeds a change queue.
bool hasQueue(Mirak::SlotTableHeader const& header);
/// REQUIRES: both of the queue's headers.
nlohmann::ordered_json queueJson(Inspection const& table);

/// A hash over the bytes of both mapped files: equal before and after something means that nobody stored
/// anything in between. 0 if they can't be read.
std::uint64_t fingerprint(std::string const& name);

/// The handler for everything that the tool calls. Its traces are off: the tool says itself what is wrong.
Lomi::Platform::DebugHandler const& quietHandler();

} // namespace Tool

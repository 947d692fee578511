// SPDX-License-Identifier: Apache-2.0
// The judgement follows what a writer asks of the files when it takes them over. See QueueFiles.h.
#include "QueueFiles.h"

#include "OneFile.h"

#include <algorithm>
#include <cstring>
#include <fmt/format.h>

namespace Tool {

using Tessel::QueueHeader;
using Tessel::QueueTable;

namespace {

constexpr char const* headerFile = "tessel";
constexpr char const* tableFiles[] = {"tessel.0", "tessel.1"};
constexpr char const* slotsFile = "tessel.slots";

/// The header, and the header of the table that it says is the current one, both of one generation: nobody
/// stores into the current table's header but its count.
void readBoth(Mem::Descriptor const& directory, std::optional<QueueHeader>& header,
              std::optional<QueueTable>& table) {
   FileFacts facts;
   auto const generation = [](auto const& h) { return h.generation; };
   Mem::Descriptor const file = openFile(directory, headerFile, facts);
   for (int attempt = 0; attempt < 100; ++attempt) {
      header = readHeader<QueueHeader>(file, generation);
      if (!header) return;
      table =
          readHeader<QueueTable>(openFile(directory, tableFiles[header->generation & 1], facts), generation);
      auto const again = readHeader<QueueHeader>(file, generation);
      if (again && again->generation == header->generation) return;
   }
}

/// What the sound headers say that can't be; empty if nothing.
std::string contradiction(QueueHeader const& header, QueueTable const& table, bool writerAlive) {
   if (table.generation != header.generation)
      return fmt::format("bad generation of queue table:{} wanted:{}", table.generation, header.generation);
   if (table.count > table.capacity)
      return fmt::format("bad queue count:{} capacity:{}", table.count, table.capacity);
   if (header.next == 0 || header.next == Rusk::noSequence)
      return fmt::format("bad queue next:{}", header.next);
   if (header.floor >= header.next)
      return fmt::format("bad queue floor:{} next:{}", header.floor, header.next);
   if (header.corralStart != 0 && header.corralEnd == 0 && !writerAlive)
      return fmt::format("unfinished compaction corralStart:{}", header.corralStart);
   if (header.corralStart != 0 && header.corralEnd != 0 &&
       (header.corralEnd < header.corralStart || header.corralEnd >= header.next))
      return fmt::format("bad corralStart:{} corralEnd:{} next:{}", header.corralStart, header.corralEnd,
                         header.next);
   return {};
}

} // namespace

QueueLook lookAtQueue(Mem::Descriptor const& directory, std::string const& path, Parcel::KestorId kestor,
                      bool writerAlive) {
   QueueLook look;
   readBoth(directory, look.header, look.table);
   std::optional<QueueHeader> const raw = look.header;
   std::string wrong;
   if (raw && !raw->validate(kestor, wrong)) look.header.reset();
   unsigned const current = raw ? raw->generation & 1 : 0;
   // Lengths come behind the headers: files only grow, so they hold what was said before.
   struct Wanted {
      char const* name;
      std::uint64_t size;
   };
   bool const sound = look.header.has_value();
   Wanted const all[] = {
       {headerFile, Tessel::headerFileSize},
       {tableFiles[current],
        sound && look.table ? Tessel::tableFileSize(look.table->capacity) : sizeof(QueueTable)},
       {tableFiles[1 - current], 1},
       {slotsFile, sound ? std::max<std::uint64_t>(1, std::uint64_t{4} * raw->slotsLength) : 1}};
   auto const problem = [&](char const* name, std::string const& what) {
      if (look.problem.empty()) look.problem = fmt::format("{}/{}: {}", path, name, what);
   };
   for (Wanted const& file : all) {
      FileFacts facts;
      openFile(directory, file.name, facts);
      if (!facts.present)
         problem(file.name, "is missing");
      else if (facts.notPlain())
         problem(file.name, "is not a plain file");
      else if (facts.error != 0 && look.unreadable.empty())
         look.unreadable = fmt::format("{}/{}: {}", path, file.name, std::strerror(facts.error));
      else if (facts.size < file.size)
         problem(file.name, fmt::format("{} bytes, wanted {}", facts.size, file.size));
      if (file.name == headerFile && !wrong.empty()) problem(headerFile, wrong);
   }
   if (sound && look.table)
      if (wrong = contradiction(*look.header, *look.table, writerAlive); !wrong.empty())
         problem(headerFile, wrong);
   return look;
}

} // namespace Tool

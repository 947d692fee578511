// SPDX-License-Identifier: Apache-2.0
// Looking at a table's files and judging them. See Files.h.
#include "Files.h"

#include "FlowTracking/TableTypes.h"
#include "Json.h"
#include "Lomi/Exception.h"
#include "Mem/WriterLock.h"
#include "Parcel/KestorFile.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>
#include <unistd.h>
#include <vector>

namespace Tool {

using Mirak::SlotTableHeader;
using MirakCore::BucketTableHeader;

namespace {

/// The judgement of one look; the first thing that is wrong counts.
class Judge {
public:
   Judge(Inspection& table, int directoryError)
      : t_(table)
      , directoryError_(directoryError) {}

   void judge() {
      if (directory() && files() && foreign() && ready() && slots() && buckets()) t_.state = State::ok;
   }

private:
   bool say(State state, std::string problem, std::string hint) {
      t_.state = state;
      t_.problem = std::move(problem);
      t_.hint = std::move(hint);
      return false;
   }
   std::string file(char const* name) const { return t_.path + "/" + name; }
   std::string writer() const {
      if (!t_.writerAlive) return "no writer lives";
      return t_.writerPid ? fmt::format("its writer, process {}, lives", t_.writerPid) : "its writer lives";
   }
   /// What helps against damage.
   std::string anew() const {
      if (t_.writerAlive) return fmt::format("{}: restart it, it then formats the table anew", writer());
      return "no writer lives; the next one formats the table anew, and all rows are lost";
   }

   bool directory() {
      if (directoryError_ == 0) return true;
      if (directoryError_ == ENOENT)
         return say(State::absent, t_.path + ": no such table", "hoflow list shows what is there");
      return say(State::unreadable, fmt::format("{}: {}", t_.path, std::strerror(directoryError_)),
                 "reading needs the right to enter the directory and to read its files");
   }

   bool files() {
      std::pair<FileFacts const&, char const*> const all[] = {
          {t_.slots, "slots"}, {t_.buckets, "buckets"}, {t_.kestor, Parcel::KestorFile::KESTOR_NAME}};
      if (std::none_of(std::begin(all), std::end(all), [](auto const& f) { return f.first.present; }) &&
          !t_.owner.present)
         return say(State::absent, t_.path + ": is no table: it holds none of a table's files",
                    "hoflow list shows what is there");
      for (auto const& [facts, name] : all) {
         if (!facts.present || facts.error == 0) continue;
         if (facts.notPlain())
            return say(State::foreign, file(name) + ": is not a plain file",
                       "a table's files are plain files; links aren't followed");
         return say(State::unreadable, fmt::format("{}: {}", file(name), std::strerror(facts.error)),
                    "reading needs the right to read the table's files, and no more");
      }
      return true;
   }

   /// Files that were never a table's, or are another version's.
   bool foreign() {
      if (t_.slotHeader && t_.slotHeader->magic != 0 &&
          !check(*t_.slotHeader, "slots", SlotTableHeader::magicValue, SlotTableHeader::formatVersion,
                 "bad magic: {:x}", "bad version: {}"))
         return false;
      return !t_.bucketHeader || t_.bucketHeader->magic == 0 ||
             check(*t_.bucketHeader, "buckets", BucketTableHeader::magicValue,
                   BucketTableHeader::formatVersion, "bad bucket magic: {:x}", "bad bucket version: {}");
   }
   template <class Header>
   bool check(Header const& header, char const* name, std::uint64_t magic, std::uint32_t version,
              char const* badMagic, char const* badVersion) {
      if (header.magic != magic)
         return say(State::foreign,
                    fmt::format("{}: {}: not a {} file", file(name),
                                fmt::format(fmt::runtime(badMagic), header.magic), name),
                    "something else wrote this file, or it is damaged; " + anew());
      if (header.version != version)
         return say(State::otherVersion,
                    fmt::format("{}: {}: this hoflow reads version {}", file(name),
                                fmt::format(fmt::runtime(badVersion), header.version), version),
                    "use the hoflow that came with the table's writer");
      return true;
   }

   /// The writer removes the kestor file before it formats and writes it last.
   bool ready() {
      if (!t_.kestor.present)
         return say(
             State::halfMade, file(Parcel::KestorFile::KESTOR_NAME) + ": is missing: the table is half made",
             t_.writerAlive ? writer() + " and is still at it; try again in a moment"
                            : "no writer lives: one died while it formatted the table; start it again");
      if (t_.kestorId.value() == 0)
         return say(State::corrupt,
                    fmt::format("{}: holds no generation ({} bytes)", file(Parcel::KestorFile::KESTOR_NAME),
                                t_.kestor.size),
                    anew());
      return true;
   }

   bool slots() {
      if (!t_.slots.present) return say(State::corrupt, file("slots") + ": is missing", anew());
      if (!t_.slotHeader)
         return say(State::corrupt,
                    fmt::format("{}: bad header file size: {} wanted:{}", file("slots"), t_.slots.size,
                                sizeof(SlotTableHeader)),
                    anew());
      SlotTableHeader const& header = *t_.slotHeader;
      std::uint32_t const slotSize = t_.type ? t_.type->slotSize : header.slotSize;
      std::uint32_t const headerSize =
          t_.type ? t_.type->headerSize : static_cast<std::uint32_t>(sizeof header) + slotSize;
      // Damage to the type's name or sizes shows in the checksum; a sound header of another type is no
      // damage.
      bool const sound = header.hash == header.checksum() && header.platform == 1;
      if (sound && !t_.type)
         return say(
             State::unknownType,
             fmt::format("{}: holds values of type \"{}\", which this hoflow doesn't know", file("slots"),
                         header.valueTypeName()),
             "use the hoflow that came with the table's writer; hoflow show and header say what can be said");
      if (sound)
         if (std::string const mismatch = t_.type->mismatch(header); !mismatch.empty())
            return say(State::otherVersion, fmt::format("{}: {}", file("slots"), mismatch),
                       "use the hoflow that came with the table's writer");
      std::string error;
      if (!header.validate(quietHandler(), t_.slots.size, t_.kestorId, headerSize, slotSize, error))
         return say(State::corrupt, fmt::format("{}: {}", file("slots"), error), anew());
      return true;
   }

   bool buckets() {
      if (!t_.buckets.present) return say(State::corrupt, file("buckets") + ": is missing", anew());
      if (!t_.bucketHeader)
         return say(State::corrupt,
                    fmt::format("{}: bad bucket file size: {} wanted:{}", file("buckets"), t_.buckets.size,
                                sizeof(BucketTableHeader)),
                    anew());
      std::string error;
      if (!t_.bucketHeader->validate(quietHandler(), t_.buckets.size, t_.kestorId, error))
         return say(State::corrupt, fmt::format("{}: {}", file("buckets"), error), anew());
      return true;
   }

   Inspection& t_;
   int directoryError_;
};

Inspection look(Mem::NaoRootPath const& place) {
   Inspection t;
   t.name = place.name();
   t.path = place.str();
   auto const& handler = quietHandler();
   Mem::Descriptor const directory = place.openDirectory();
   int const directoryError = directory ? 0 : errno;
   if (directory) {
      // The generation first and last: it is taken away before anything else changes.
      Parcel::KestorFile const kestorFile(handler, place, false);
      openFile(directory, Parcel::KestorFile::KESTOR_NAME, t.kestor);
      t.kestorId = kestorFile.read();
      t.kestorTime = kestorFile.mtime();
      t.slotHeader = readHeader<SlotTableHeader>(openFile(directory, "slots", t.slots),
                                                 [](auto const& h) { return h.numSlots.version; });
      t.bucketHeader = readHeader<BucketTableHeader>(openFile(directory, "buckets", t.buckets),
                                                     [](auto const& h) { return h.numBuckets.version; });
      Parcel::OwnerFile const ownerFile(handler, place, false);
      openFile(directory, Parcel::OwnerFile::FILENAME, t.owner);
      bool const mayRead = !t.owner.present || t.owner.error == 0 || t.owner.notPlain();
      if (mayRead && !ownerFile.validate(t.ownerProblem) && t.ownerProblem.empty())
         t.ownerProblem = ownerFile.getFilename() + ": is no sound owner file";
      t.ownerText = t.owner.present ? ownerFile.headerToString() : "absent";
      std::string ignored;
      if (t.owner.present) t.ownerFacts = ownerFile.facts(ignored);
      FileFacts marker;
      openFile(directory, "corruption-detected", marker);
      t.marked = marker.present;
      t.writerAlive = Mem::WriterLock::ownerIsAlive(handler, place, &t.writerPid);
      if (t.slotHeader && hasQueue(*t.slotHeader))
         t.queue = lookAtQueue(directory, t.path, t.kestorId, t.writerAlive);
   }
   if (t.slotHeader) t.type = FlowTracking::tableTypeNamed(t.slotHeader->valueTypeName());
   Judge(t, directoryError).judge();
   return t;
}

} // namespace

std::string_view stateText(State state) {
   switch (state) {
   case State::ok:
      return "ok";
   case State::halfMade:
      return "half-made";
   case State::absent:
      return "absent";
   case State::unreadable:
      return "unreadable";
   case State::unknownType:
      return "unknown-type";
   case State::foreign:
      return "foreign";
   case State::otherVersion:
      return "other-version";
   case State::corrupt:
      return "corrupt";
   }
   return "?";
}

Exit Inspection::status() const {
   switch (state) {
   case State::ok:
      return Exit::ok;
   case State::halfMade:
      return Exit::incomplete;
   case State::absent:
   case State::unreadable:
   case State::unknownType:
   case State::otherVersion:
      return Exit::cantOpen;
   case State::foreign:
   case State::corrupt:
      return Exit::corrupt;
   }
   return Exit::corrupt;
}

Lomi::Platform::DebugHandler const& quietHandler() {
   static Lomi::Platform::DebugHandler handler("hoflow-tool");
   static bool const quiet = (handler.maskIs(0), true);
   static_cast<void>(quiet);
   return handler;
}

std::uint64_t fingerprint(std::string const& name) {
   Mem::Descriptor const directory = Mem::NaoRootPath(quietHandler(), name, false).openDirectory();
   if (!directory) return 0;
   std::uint64_t hash = 0xcbf29ce484222325;
   std::vector<std::uint64_t> words(1 << 15);
   for (char const* const file : {"slots", "buckets"}) {
      FileFacts facts;
      Mem::Descriptor const open = openFile(directory, file, facts);
      if (!open) return 0;
      for (off_t at = 0;;) {
         ssize_t const got = ::pread(open.get(), words.data(), words.size() * 8, at);
         if (got < 0 && errno == EINTR) continue;
         if (got < 0) return 0;
         if (got == 0) break;
         // Bytes of an earlier piece may stand behind a short last word: the same ones each time.
         for (ssize_t i = 0; i < (got + 7) / 8; ++i) {
            hash = (hash ^ words[static_cast<std::size_t>(i)]) * 0x9e3779b97f4a7c15;
            hash ^= hash >> 32;
         }
         at += got;
      }
   }
   return hash;
}

bool hasQueue(SlotTableHeader const& header) {
   return (header.constFlags & SlotTableHeader::hasChangeQueue) != 0;
}

ordered_json queueJson(Inspection const& t) {
   return {{"held", t.queue.table->count},
           {"bound", t.queue.table->capacity},
           {"generation", t.queue.header->generation},
           {"sequence", t.queue.header->next - 1},
           {"followers", t.writerAlive ? t.queue.header->followers : 0},
           {"resyncs", t.writerAlive ? t.queue.header->resyncs : 0}};
}

Inspection glance(std::string const& name) {
   try {
      return look(Mem::NaoRootPath(quietHandler(), name, false));
   } catch (Lomi::InvalidInitializeException const& e) {
      throw Failure{Exit::usage, fmt::format("\"{}\" can't be a table's name: {}", name, e.what())};
   }
}

Inspection inspect(std::string const& name) {
   using namespace std::chrono_literals;
   // A moment after a writer's step, what looked half made or damaged is whole.
   for (int attempt = 0;; ++attempt) {
      Inspection seen = glance(name);
      bool const queue = seen.state == State::ok && !seen.queue.problem.empty();
      bool const transient =
          seen.writerAlive && (seen.state == State::halfMade || seen.state == State::corrupt || queue);
      // A queue gets a second look in any case: a writer may have come and gone between the files.
      if (!(transient && attempt < 5) && !(queue && attempt == 0)) return seen;
      std::this_thread::sleep_for(50ms);
   }
}

} // namespace Tool

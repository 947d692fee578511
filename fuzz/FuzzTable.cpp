// SPDX-License-Identifier: Apache-2.0
// Fuzzes the two readers of table files: a MirakReader, before and under the damage, and a MirakWriter that
// has to adopt or re-format what it finds. Each input is a list of edits to the files of a small sound table.
//
// What must hold: no crash, no sanitizer report, only exceptions of Lomi, no walk of more rows than there are
// slots; and after the writer's start a sound table whose walk gives `members()` rows.
//
// An input is a list of 8-byte edits: file (1), operation (1), offset (2), value (4). The first byte of the
// whole says whether the damage comes before the reader attaches or under it.
#include "FlowTracking/Tables.h"
#include "Lomi/Exception.h"
#include "Mem/Paths.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

using Ops = FlowTracking::HoIpFlowCounterOps;
using Bytes = std::vector<unsigned char>;
using Mem::u32;

char const* const table = "fuzzed";
std::vector<FlowTracking::IpFlowKey> keys;
std::string directory;
Bytes slots, buckets, kestor, owner;

[[noreturn]] void fail(char const* what) {
   std::fprintf(stderr, "fuzz-table: %s\n", what);
   std::abort();
}

Lomi::Platform::DebugHandler const& handler() {
   static auto const quiet = Lomi::Platform::getDebugHandler("fuzz", true);
   return *quiet;
}

Bytes contents(std::string const& name) {
   Bytes bytes;
   int const fd = ::open((directory + name).c_str(), O_RDONLY | O_CLOEXEC);
   struct stat facts {};
   if (fd < 0 || ::fstat(fd, &facts) != 0) fail("can't read the sound table");
   bytes.resize(static_cast<std::size_t>(facts.st_size));
   if (::read(fd, bytes.data(), bytes.size()) != facts.st_size) fail("can't read the sound table");
   ::close(fd);
   return bytes;
}

void replace(std::string const& name, Bytes const& bytes, bool inPlace) {
   int const fd = ::open((directory + name).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
   if (fd < 0) fail("can't write the table's files");
   if (!inPlace && ::ftruncate(fd, 0) != 0) fail("can't empty the table's files");
   if (::pwrite(fd, bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) fail("short write");
   ::close(fd);
}

FlowTracking::IpFlowKey keyOf(unsigned i) {
   Ip::IpAddr const from(Ip::IpAddr::Bytes{10, 0, 0, static_cast<unsigned char>(i)});
   Ip::IpAddr const to(Ip::IpAddr::Bytes{10, 0, 1, static_cast<unsigned char>(i / 3)});
   return FlowTracking::IpFlowKey(0, 0, from, to, Ip::Protocol::udp, static_cast<std::uint16_t>(i), 53);
}

/// A table of 60 rows that grew twice and lost some rows again.
void makeSound() {
   char root[] = "/dev/shm/hoflow-fuzz.XXXXXX";
   if (!::mkdtemp(root)) fail("no folder in /dev/shm");
   Mem::RootPath::set(root);
   directory = std::string(root) + "/" + table + "/";
   Lomi::Platform::defaultMaskIs(0);
   Mirak::MirakWriter<Ops> writer(handler(), table, Mirak::MapDescriptor(1000));
   writer.initialize("fuzz");
   for (unsigned i = 0; i < 70; ++i) {
      keys.push_back(keyOf(i));
      writer.write(FlowTracking::HoIpFlowCounter(keys.back()), true);
   }
   Ops::Value removed;
   for (unsigned i = 0; i < 70; i += 7) writer.remove(keys[i], removed);
   writer.detach(false);
   slots = contents("slots");
   buckets = contents("buckets");
   kestor = contents("kestor");
   owner = contents("owner");
}

void edit(Bytes& bytes, unsigned char const* input) {
   std::uint16_t offset;
   u32 value;
   std::memcpy(&offset, input + 2, 2);
   std::memcpy(&value, input + 4, 4);
   if (bytes.empty()) return;
   // Aligned words are what the code reads; any byte can be hit by operation 0.
   std::size_t const byte = offset % bytes.size();
   std::size_t const word = byte / 4 * 4;
   switch (input[1] % 5) {
   case 0:
      bytes[byte] = static_cast<unsigned char>(value);
      return;
   case 1:
      bytes[byte] ^= static_cast<unsigned char>(1u << value % 8);
      return;
   case 2:
      if (word + 4 <= bytes.size()) std::memcpy(&bytes[word], &value, 4);
      return;
   case 3: { // a small change of a word
      u32 old;
      if (word + 4 > bytes.size()) return;
      std::memcpy(&old, &bytes[word], 4);
      old += value % 9 - 4;
      std::memcpy(&bytes[word], &old, 4);
      return;
   }
   default:
      bytes.resize(value % 2 ? byte : bytes.size() + value % 4096);
      return;
   }
}

template <class Table> u32 walk(Table const& from) {
   Ops::Value value;
   Mirak::IterHint hint;
   u32 rows = 0;
   for (bool more = from.first(value, hint); more; more = from.next(value.fwkKey(), value, hint))
      if (++rows > (1u << 16)) fail("an endless walk");
   return rows;
}

template <class Work> void tolerated(Work work) {
   try {
      work();
   } catch (Lomi::Exception const&) {
      // Damage may be refused in any of the library's ways.
   }
}

void read(Mirak::MirakReader<Ops> const& reader) {
   tolerated([&] { walk(reader); });
   for (auto const& key : keys)
      tolerated([&] {
         bool found = false;
         Ops::Value value;
         reader.lookup(key, found, &value);
      });
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(unsigned char const* input, std::size_t size) {
   if (slots.empty()) makeSound();
   bool const underReader = size != 0 && input[0] & 1;
   Bytes file[] = {slots, buckets, kestor, owner};
   for (std::size_t at = 1; at + 8 <= size && at < 8 * 16; at += 8) {
      // A file is never cut under those who have it mapped: no library can survive that.
      if (underReader && input[at + 1] % 5 == 4) continue;
      edit(file[input[at] % 4], input + at);
   }
   char const* const names[] = {"slots", "buckets", "kestor", "owner"};
   Bytes const* const sound[] = {&slots, &buckets, &kestor, &owner};
   for (int i = 0; i < 4; ++i) replace(names[i], underReader ? *sound[i] : file[i], false);
   {
      Mirak::MirakReader<Ops> reader(handler(), table, Ops());
      bool attached = false;
      tolerated([&] { attached = reader.initialize("fuzz"); });
      if (underReader) {
         if (!attached) fail("a sound table is refused");
         read(reader);
         for (int i = 0; i < 4; ++i) replace(names[i], file[i], true);
      }
      if (attached) read(reader);
   }
   Mirak::MirakWriter<Ops> writer(handler(), table, Mirak::MapDescriptor(1000));
   writer.initialize("fuzz");
   std::string error;
   if (!writer.validate(writer.kestorId(), error, true)) fail("unsound after a start");
   if (walk(writer) != writer.members()) fail("the walk and the count differ");
   writer.cleanup();
   return 0;
}

// SPDX-License-Identifier: Apache-2.0
// The tool on tables that can't be read, and beside writers that don't keep still: the exit status for each
// kind of trouble, a message that names the file, and nothing ever written, as root neither.
#include "Support.h"

#include "Parcel/KestorFile.h"

#include <atomic>
#include <csignal>
#include <filesystem>
#include <fmt/format.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace ToolTest {
namespace {

using namespace FlowTracking;
namespace fs = std::filesystem;
using Header = Mirak::SlotTableHeader;
using BucketHeader = MirakCore::BucketTableHeader;

class Trouble : public Root {
protected:
   static constexpr u32 rows = 500;
   Trouble() { makeTable(); }
   void makeTable(u32 count = rows) const {
      Writer<HoIpFlowCounter> writer(counterName, 100);
      for (u32 n = 0; n < count; ++n) writer.put(counter4(n));
   }
   std::string slots() const { return file(counterName, "slots"); }
   std::string buckets() const { return file(counterName, "buckets"); }
   std::string kestor() const { return file(counterName, "kestor"); }
   /// Where slot n begins.
   static std::size_t slotAt(u32 n) { return 672 + 88 * std::size_t{n}; }
};

TEST_F(Trouble, EachKindHasItsStatusAndNamesItsFile) {
   struct Kind {
      char const* what;
      int status;
      std::vector<std::string> says; ///< all on stderr
      std::function<void()> damage;
   };
   auto const slot = [&](std::size_t offset, auto value) {
      return [=, this] { poke(slots(), offset, value); };
   };
   auto const bucket = [&](std::size_t offset, auto value) {
      return [=, this] { poke(buckets(), offset, value); };
   };
   auto const sealed = [&](std::size_t offset, auto value) {
      return [=, this] {
         poke(slots(), offset, value);
         sealHeader(counterName);
      };
   };
   auto const gone = [](std::vector<std::string> const& files) {
      return [=] {
         for (auto const& name : files) fs::remove_all(name);
      };
   };
   auto const cut = [](std::string const& name, u64 bytes) { return [=] { fs::resize_file(name, bytes); }; };
#define AT(field) offsetof(Header, field)
#define BUCKET(field) offsetof(BucketHeader, field)
   // clang-format off
   Kind const kinds[] = {
       {"no table", 3, {counterName}, gone({root + "/" + counterName})},
       {"no kestor file", 5, {kestor(), "half made"}, gone({kestor()})},
       {"only an owner file", 5, {kestor(), "half made"}, gone({kestor(), slots(), buckets()})},
       {"kestor file cut", 4, {kestor(), "7 bytes"}, cut(kestor(), 7)},
       {"kestor of another table", 4, {kestor()}, [&] { poke(kestor(), 8, u32{0x12345}); }},
       {"slots gone", 4, {slots(), "missing"}, gone({slots()})},
       {"slots empty", 4, {slots(), "bad header file size: 0"}, cut(slots(), 0)},
       {"slots cut", 4, {slots(), "bad shmem size:4096"}, cut(slots(), 4096)},
       {"slots is a text", 4, {slots(), "bad magic: 7878787878787878"},
        [&] { write(slots(), std::vector<char>(10000, 'x')); }},
       {"slots is a directory", 4, {slots(), "not a plain file"},
        [&] { fs::remove(slots()), fs::create_directory(slots()); }},
       {"slots is a link", 4, {slots(), "not a plain file"},
        [&] { fs::rename(slots(), root + "/x"), fs::create_symlink(root + "/x", slots()); }},
       {"another version", 3, {slots(), "bad version: 25", "version 24"}, slot(AT(version), u32{25})},
       {"another generation", 4, {slots(), "bad kestor:99:0"}, slot(AT(kestor), u32{99})},
       {"another platform", 4, {slots(), "bad platform"}, slot(AT(platform), u32{2})},
       {"damaged type", 4, {slots(), "checksum fail"}, slot(AT(valueType), 'X')},
       {"damaged size", 4, {slots(), "checksum fail"}, slot(AT(valueSize), u32{73})},
       {"unknown type", 3, {slots(), "FlowTracking::XoIpFlowCounter"}, sealed(AT(valueType) + 14, 'X')},
       {"another layout", 3, {slots(), "valueSize:80"}, sealed(AT(valueSize), u32{80})},
       {"occupied beyond capacity", 4, {slots(), "bad occupiedSlots: 70000"},
        slot(AT(occupiedSlots), u32{70000})},
       {"capacity beyond the file", 4, {slots(), "70000"}, slot(AT(numSlots) + 4, u32{70000})},
       {"buckets gone", 4, {buckets(), "missing"}, gone({buckets()})},
       {"buckets cut", 4, {buckets(), "size: 10"}, cut(buckets(), 10)},
       {"buckets foreign", 4, {buckets(), "bad bucket magic: 1"}, bucket(0, u64{1})},
       {"buckets of another version", 3, {buckets(), "bad bucket version: 2"}, bucket(BUCKET(version), u32{2})},
       {"buckets of another generation", 4, {buckets(), "kestor"}, bucket(BUCKET(kestor), u32{99})},
       {"bucket count", 4, {buckets(), "numBuckets: 3"}, bucket(BUCKET(numBuckets) + 4, u32{3})},
   };
   // clang-format on
#undef AT
#undef BUCKET
   for (Kind const& kind : kinds) {
      SCOPED_TRACE(kind.what);
      fs::remove_all(root + "/" + counterName);
      makeTable();
      ASSERT_EQ(run({"check", counterName}).status, 0);
      kind.damage();
      std::string const before = snapshot();
      for (std::vector<std::string> command : {std::vector<std::string>{"dump"},
                                               {"count"},
                                               {"get"},
                                               {"check"},
                                               {"stat", "-j"},
                                               {"show", "-j"},
                                               {"header"}}) {
         command.push_back(counterName);
         if (command[0] == "get") command.insert(command.end(), {"tcp", "10.1.0.1:1000", "10.2.0.1:443"});
         auto const result = run(command);
         EXPECT_EQ(result.status, kind.status) << command[0] << ": " << result.err;
         for (std::string const& words : kind.says)
            EXPECT_NE(result.err.find(words), std::string::npos) << command[0] << ": " << result.err;
         if (command[0] == "show" && kind.what != kinds[0].what) {
            EXPECT_EQ(result.objects().size(), 1u);
         }
      }
      EXPECT_EQ(run({"list", "-j"}).objects().size(), kind.what == kinds[0].what ? 0u : 1u);
      EXPECT_EQ(snapshot(), before) << "the tool changed something";
   }
}

TEST_F(Trouble, CheckFindsDamagedRows) {
   struct Damage {
      char const* what;
      std::function<void()> store;
      char const* says;
   };
   std::vector<char> const sound = read(slots());
   u32 const word = peek<u32>(slots(), slotAt(3) + 8);
   Damage const all[] = {
       {"a key", [&] { poke(slots(), slotAt(7) + 16 + 6, u32{0x01010101}); }, "corrupt"},
       {"a stored hash", [&] { poke(slots(), slotAt(7) + 12, u32{5}); }, "damaged"},
       {"an OCCUPIED bit", [&] { poke(slots(), slotAt(3) + 8, word & ~1u); }, "not marked as occupied"},
       {"a chain into itself", [&] { poke(slots(), slotAt(3) + 4, u32{3}); }, "damaged"},
       {"a slot out of range", [&] { poke(slots(), slotAt(3) + 4, u32{60000}); }, "damaged"},
       {"the number of rows", [&] { poke(slots(), offsetof(Header, occupiedSlots), rows - 1); },
        "the header says 499 rows, the walk met 500"},
       {"a bucket's head", [&] { poke(buckets(), 24 + 8 * 5 + 4, u32{60000}); }, "damaged"},
   };
   for (Damage const& damage : all) {
      SCOPED_TRACE(damage.what);
      auto const index = read(buckets());
      damage.store();
      std::string const before = snapshot();
      auto const check = run({"check", counterName});
      EXPECT_EQ(check.status, 4) << check.out << check.err;
      EXPECT_NE((check.out + check.err).find(damage.says), std::string::npos) << check.out << check.err;
      auto const asJson = object({"check", counterName});
      EXPECT_EQ(asJson["sound"], false);
      EXPECT_FALSE(asJson["problems"].empty());
      EXPECT_EQ(snapshot(), before) << "the tool changed something";
      write(slots(), sound);
      write(buckets(), index);
   }
   EXPECT_EQ(run({"check", counterName}).status, 0);
   // A dump says what it can: the rows before the damage, and how many.
   poke(slots(), slotAt(7) + 16 + 6, u32{0x01010101});
   auto const dump = run({"dump", counterName, "-j"});
   EXPECT_EQ(dump.status, 4);
   EXPECT_NE(dump.err.find(fmt::format("(behind {} sound rows)", dump.objects().size())), std::string::npos)
       << dump.err;
}

TEST_F(Trouble, ADeadWritersHalfOperationIsSaid) {
   poke(slots(), offsetof(Header, runtimeFlags), Header::inCriticalSection);
   auto const check = run({"check", counterName});
   EXPECT_EQ(check.status, 5);
   EXPECT_NE(check.out.find("died inside an operation"), std::string::npos) << check.out;
   EXPECT_EQ(run({"dump", counterName}).lines().size(), rows + 1); // readers go on
   EXPECT_EQ(object({"list"})["interrupted"], true);
}

TEST_F(Trouble, AnOwnerFileThatTheNextWriterRefusesIsSaid) {
   auto const owner = file(counterName, "owner");
   EXPECT_EQ(run({"check", counterName}).status, 0);
   for (auto const& damage : std::vector<std::function<void()>>{
            [&] { poke(owner, 24, 1); }, [&] { fs::remove(owner); }, [&] { fs::create_directory(owner); }}) {
      damage();
      auto const check = run({"check", counterName});
      EXPECT_EQ(check.status, 4);
      EXPECT_NE(check.out.find(owner), std::string::npos) << check.out;
      EXPECT_EQ(run({"dump", counterName}).lines().size(), rows + 1); // no matter to readers
   }
}

TEST_F(Trouble, ARootThatIsALinkIsSaid) {
   fs::create_directory_symlink(root, root + "/link");
   hoflow({"count", counterName, "--root", root + "/link"})
       .is(3, {"/link: is a symbolic link", "--root " + root + " names it"});
}

TEST_F(Trouble, NamesOfTablesDontSteerATerminal) {
   fs::rename(root + "/flowtracking", root + "/a\nb\033[31m\xff");
   for (auto const& words :
        std::vector<std::vector<std::string>>{{"list"}, {"dump", "nope"}, {"list", "-j"}}) {
      auto const result = run(words);
      EXPECT_EQ((result.out + result.err).find('\033'), std::string::npos) << words[0];
   }
   EXPECT_EQ(run({"list"}).lines().size(), 2u);
}

TEST_F(Trouble, ReadRightsAreNeededAndNoMore) {
   unsigned const uid = getuid() == 0 ? 65534 : 0; // root may do anything
   for (char const* name : {"slots", "buckets", "kestor", "owner"})
      chmod(file(counterName, name).c_str(), 0444);
   EXPECT_EQ(run({"check", counterName}, {.uid = uid}).status, 0);
   EXPECT_EQ(run({"dump", counterName, "-j"}, {.uid = uid}).objects().size(), rows);
   for (char const* name : {"slots", "buckets", "kestor"}) {
      auto const path = file(counterName, name);
      chmod(path.c_str(), 0);
      auto const result = run({"dump", counterName}, {.uid = uid});
      EXPECT_EQ(result.status, 3) << name;
      EXPECT_NE(result.err.find(path), std::string::npos) << result.err;
      EXPECT_NE(result.err.find("Permission denied"), std::string::npos) << result.err;
      chmod(path.c_str(), 0644);
   }
   {
      Writer<HoIpFlowCounter> writer(counterName);
      auto const show = object({"show", counterName}, {.uid = uid});
      EXPECT_EQ(show["writerAlive"], true);
      EXPECT_EQ(show["writerPid"], getpid());
   }
   auto const top = root + "/flowtracking", folder = root + "/" + counterName;
   chmod(top.c_str(), 0111); // may be entered, not listed
   EXPECT_EQ(run({"check", counterName}, {.uid = uid}).status, 0);
   chmod(top.c_str(), 0755);
   chmod(folder.c_str(), 0);
   for (char const* name : {counterName, "hoIpFlowCounter", "*IpFlow*"})
      run({"dump", name}, {.uid = uid}).is(3, {folder + ": may not be read"});
   EXPECT_EQ(run({"list"}, {.uid = uid}).status, 5);
   chmod(folder.c_str(), 0755);
}

class BesideAWriter : public Trouble {};

// A dump that is stopped by its full pipe while the table is formatted anew, or removed and made again.
TEST_F(BesideAWriter, ADumpOfAReplacedTableIsIncomplete) {
   constexpr u32 many = 20000;
   std::function<void()> const changes[] = {
       [&] {
          poke(slots(), offsetof(Header, runtimeFlags), Header::inCriticalSection); // the next writer formats
          makeTable(3);
       },
       [&] {
          fs::remove_all(root + "/" + counterName);
          makeTable(3);
       },
   };
   for (auto const& change : changes) {
      fs::remove_all(root + "/" + counterName);
      makeTable(many);
      auto const result = run({"dump", counterName, "-j"}, {.whileBlocked = [&](int) { change(); }});
      EXPECT_EQ(result.status, 5) << result.err;
      EXPECT_NE(result.err.find("of the old table"), std::string::npos) << result.err;
      for (json const& row : result.objects()) ASSERT_EQ(row["key"]["dstAddr"], "10.2.0.1");
      EXPECT_EQ(run({"dump", counterName, "-j"}).objects().size(), 3u);
   }
}

TEST_F(BesideAWriter, CheckDoesNotCryWolf) {
   constexpr u32 steady = 20000;
   fs::remove_all(root + "/" + counterName);
   std::atomic<bool> ready{false}, stop{false};
   std::atomic<u64> operations{0};
   // Rows come and go, values change, the index grows and shrinks.
   std::thread busy([&] {
      Writer<HoIpFlowCounter> writer(counterName, 100);
      for (u32 n = 0; n < steady; ++n) writer.put(counter4(n));
      ready = true;
      for (u32 n = 0; !stop; ++n) {
         writer.put(counter4(n % steady));
         u32 const fleeting = steady + n % 50000;
         if (n / 50000 % 2)
            writer.remove(key4(fleeting));
         else
            writer.put(counter4(fleeting));
         operations += 2;
      }
   });
   while (!ready) std::this_thread::yield();
   u64 const before = operations;
   bool rowsDiffered = false;
   // Until a check met a row that came or went; else the test shows nothing.
   for (int i = 0; i < 5 || ((!rowsDiffered || operations - before < 1000) && i < 200); ++i) {
      auto const check = run({"check", counterName, "-j"});
      check.is(0);
      auto const verdict = check.object();
      EXPECT_EQ(verdict["writerAlive"], true);
      EXPECT_GE(verdict["rows"], steady);
      rowsDiffered = rowsDiffered || verdict["rows"] != verdict["members"];
      EXPECT_GE(run({"dump", counterName, "-j"}).objects().size(), steady);
      EXPECT_EQ(run({"stat", counterName}).status, 0);
      EXPECT_EQ(run({"get", counterName, "tcp", "10.1.0.1:1000", "10.2.0.1:443"}).status, 0);
   }
   stop = true;
   busy.join();
   EXPECT_GT(operations - before, 1000u);
   EXPECT_TRUE(rowsDiffered) << "no check met a row that came or went: the test shows nothing";
   EXPECT_EQ(run({"check", counterName}).status, 0);
}

TEST_F(BesideAWriter, AFileThatIsCutShortIsSaid) {
   fs::remove_all(root + "/" + counterName);
   makeTable(20000);
   auto const result =
       run({"dump", counterName}, {.whileBlocked = [&](int) { fs::resize_file(slots(), 4096); }});
   EXPECT_EQ(result.status, 5);
   EXPECT_NE(result.err.find("cut short while it was read"), std::string::npos) << result.err;
}

TEST_F(BesideAWriter, ABrokenPipeIsSilent) {
   fs::remove_all(root + "/" + counterName);
   makeTable(5000);
   // The reading end is gone before the tool begins to write.
   auto const result = run({"dump", counterName}, {.closedPipe = true});
   EXPECT_EQ(result.status, -SIGPIPE);
   EXPECT_EQ(result.err, "");
}

TEST_F(BesideAWriter, AFullDiskUnderTheOutputIsSaid) {
   auto const result = run({"dump", counterName}, {.intoFile = "/dev/full"});
   EXPECT_EQ(result.status, 5);
   EXPECT_EQ(result.err, "hoflow: cannot write the output: No space left on device\n");
}

} // namespace
} // namespace ToolTest

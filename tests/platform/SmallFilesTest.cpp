// SPDX-License-Identifier: Apache-2.0
// The generation file and the owner file: round trips, damage, and readers beside a busy
// writer. Crash points are in tests/crash.
#include "Lomi/Exception.h"
#include "Parcel/KestorFile.h"
#include "Parcel/OwnerFile.h"
#include "Scratch.h"

#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <sys/resource.h>
#include <thread>

using Parcel::KestorFile;
using Parcel::KestorId;
using Parcel::OwnerFile;
using Parcel::TunnetInfo;

namespace {

std::string slurp(std::string const& path) {
   std::ifstream in(path, std::ios::binary);
   return {std::istreambuf_iterator<char>(in), {}};
}
void spill(std::string const& path, std::string const& bytes) {
   std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

} // namespace

TEST(Kestor, IdsHaveTheirFormAndNeverBecomeNone) {
   EXPECT_EQ(KestorId(0x1234, 0x5678).value(), 0x56781234u);
   EXPECT_EQ(fmt::format("{}", KestorId(0x56781234)), "4660:22136");
   EXPECT_EQ(KestorId(1, 0xffff).bumpHigh(), KestorId(1, 0));
   EXPECT_EQ(KestorId(0, 0xffff).bumpHigh(), KestorId(0, 1)) << "an id of 0 means none";
}

TEST(Kestor, FileKeepsTheId) {
   Scratch const scratch;
   KestorFile file(handler(), scratch.table(), false);
   EXPECT_EQ(file.read().value(), 0u);
   EXPECT_EQ(file.mtime(), 0);
   file.remove();
   EXPECT_FALSE(scratch.table().exists()) << "reading and removing make nothing";
   file.write(KestorId(7, 1));
   file.write(KestorId(7, 2));
   EXPECT_EQ(file.read(), KestorId(7, 2));
   EXPECT_TRUE(file.validate(KestorId(7, 2)));
   EXPECT_THROW(file.validate(KestorId(7, 1)), Lomi::CorruptionDetectedException);
   EXPECT_GT(file.mtime(), 1.6e9);
   file.remove();
   EXPECT_EQ(file.read().value(), 0u);
   EXPECT_THROW(file.validate(KestorId(7, 2)), Lomi::CorruptionDetectedException);
   EXPECT_TRUE(std::filesystem::is_empty(scratch.table().str())) << "no temporary file stays";
   // Left by a killed writer.
   spill(scratch.table().str() + "/kestor.new", "half");
   file.write(KestorId(8, 0));
   EXPECT_EQ(file.read(), KestorId(8, 0));
}

// A start that took a shortage for an absent id or for damage would throw a sound table away.
TEST(SmallFiles, AShortageOfDescriptorsIsNoDamage) {
   Scratch const scratch;
   KestorFile kestor(handler(), scratch.table(), false);
   kestor.write(KestorId(1, 2));
   Child child([&] {
      OwnerFile owner(handler(), scratch.table(), false);
      owner.lock();
      owner.typeNameIs("T");
      rlimit const none{0, 0};
      ::setrlimit(RLIMIT_NOFILE, &none);
      if (!owner.validate()) return 1;
      try {
         OwnerFile(handler(), scratch.table(), false).tunnetInfo();
         return 4;
      } catch (Lomi::RuntimeException const&) {
      }
      try {
         kestor.readOrThrow();
         return 2;
      } catch (Lomi::RuntimeException const& e) {
         return e.msg() == "cannot read " + kestor.getFilename() + ": Too many open files" ? 0 : 3;
      }
   });
   EXPECT_EQ(child.wait(), 0);
   kestor.remove();
   EXPECT_EQ(kestor.readOrThrow().value(), 0u);
}

TEST(Owner, FileKeepsWhatItIsTold) {
   Scratch const scratch;
   auto const path = scratch.table();
   OwnerFile owner(handler(), path, false);
   EXPECT_THROW(owner.tunnetInfo(), Lomi::CorruptionDetectedException);
   owner.lock();
   owner.typeNameIs(std::string(511, 't'));
   owner.parcelTypeIs(Parcel::ParcelType::mirak);
   owner.tunnetInfoIs({std::string(107, 's'), 17});
   OwnerFile const other(handler(), path, false);
   EXPECT_TRUE(other.validate());
   EXPECT_TRUE(other.validateFile());
   EXPECT_EQ(other.typeName(), std::string(511, 't'));
   EXPECT_EQ(other.parcelType(), Parcel::ParcelType::mirak);
   EXPECT_EQ(other.tunnetInfo(), (TunnetInfo{std::string(107, 's'), 17}));
   EXPECT_EQ(other.pid(), static_cast<Mem::u32>(::getpid()));
   EXPECT_NE(other.headerToString().find("tableId:17"), std::string::npos);
   EXPECT_THROW(owner.typeNameIs(std::string(512, 't')), Lomi::InvalidInitializeException);
   EXPECT_THROW(owner.tunnetInfoIs({std::string(108, 's'), 1}), Lomi::InvalidInitializeException);
   EXPECT_EQ(other.tunnetInfo().tableId, 17u) << "a refused text changes nothing";
   owner.tunnetInfoIs({});
   EXPECT_EQ(other.tunnetInfo(), TunnetInfo{});
   EXPECT_EQ(other.typeName(), std::string(511, 't'));
}

TEST(Owner, AFreshDirectoryIsValidAndOneThatLostItsOwnerIsNot) {
   Scratch const scratch;
   auto const path = scratch.table();
   OwnerFile owner(handler(), path, false);
   EXPECT_TRUE(owner.validate()) << "no directory yet";
   owner.lock();
   EXPECT_TRUE(owner.validate()) << "an empty owner file, as lock() makes it";
   for (char const* name : {"slots", "buckets", "kestor"}) {
      spill(path.str() + "/" + name, "");
      std::string error;
      EXPECT_FALSE(owner.validate(error)) << name;
      EXPECT_NE(error.find(owner.getFilename()), std::string::npos) << error;
      std::filesystem::remove(path.str() + "/" + name);
   }
   EXPECT_THROW(owner.validateFile(), Lomi::CorruptionDetectedException);
   OwnerFile local(handler(), Mem::NaoRootPath(handler(), "x", true), true);
   EXPECT_TRUE(local.validate());
   local.typeNameIs("T");
   EXPECT_FALSE(std::filesystem::exists(scratch.path() + "/x"));
}

TEST(Owner, DamageIsNoticedKeptAndMended) {
   Scratch const scratch;
   OwnerFile owner(handler(), scratch.table(), false);
   owner.typeNameIs("FlowTracking::HoIpFlowCounter");
   owner.tunnetInfoIs({"socket", 3});
   std::string bad = slurp(owner.getFilename());
   bad[100] = static_cast<char>(bad[100] ^ 1);
   spill(owner.getFilename(), bad);
   std::string error;
   EXPECT_FALSE(owner.validate(error));
   EXPECT_EQ(owner.headerToString(), error);
   EXPECT_EQ(owner.pid(), 0u);
   EXPECT_THROW(owner.tunnetInfo(), Lomi::CorruptionDetectedException);
   owner.refreshOwner();
   EXPECT_FALSE(owner.validate()) << "evidence of damage stays until somebody decides";
   owner.typeNameIs("T");
   EXPECT_TRUE(owner.validate());
   EXPECT_EQ(owner.tunnetInfo(), TunnetInfo{}) << "nothing of a damaged record is believed";
}

// A reader beside a writer that rewrites the record as fast as it can sees no damage and no mixture.
TEST(Owner, ReadersNeverSeeHalfARecord) {
   Scratch const scratch;
   auto const path = scratch.table();
   OwnerFile(handler(), path, false).tunnetInfoIs({"a", 1});
   std::atomic<bool> stop{false};
   std::thread writer([&] {
      OwnerFile owner(handler(), path, false);
      for (Mem::u32 i = 0; !stop; ++i)
         owner.tunnetInfoIs({std::string(1 + i % 100, static_cast<char>('a' + i % 26)), i});
   });
   int reads = 0, changes = 0;
   Mem::u32 last = 0;
   OwnerFile const owner(handler(), path, false);
   KestorFile(handler(), path, false).write(KestorId(1, 1));
   for (; reads < 5000 || changes <= 10; ++reads) {
      auto const info = owner.tunnetInfo();
      if (info.tableId != last) ++changes;
      last = info.tableId;
      if (info.tableId > 1) {
         EXPECT_EQ(info.socketName, std::string(1 + last % 100, static_cast<char>('a' + last % 26)));
      }
   }
   stop = true;
   writer.join();
}

// SPDX-License-Identifier: Apache-2.0
// A back end that calls its client from work of its own: it is attached again and again, empties itself when
// its table goes away, and may be let go by its client from within. Here it keeps numbers instead of rows,
// and the test says when it goes on; real shadows are mounted in tests/shadow.
#include "Support.h"

using namespace Test;

namespace {

class NumberShadow;

/// Of all its shadows; the last of them may end after their client.
struct Shadows {
   NumberShadow* latest = nullptr;
   int alive = 0;
};

class ShadowClient : public Client<QueuedOps> {
public:
   using Client::Client;
   std::unique_ptr<BackEnd> newShadow(u32 options) override;
   std::shared_ptr<Shadows> const shadows = std::make_shared<Shadows>();
   u32 flags = 0;
};

class NumberShadow : public Mirak::MirakInterface<QueuedOps> {
public:
   explicit NumberShadow(ShadowClient& owner)
      : owner_(owner)
      , shadows_(owner.shadows)
      , path_(owner.rootPath()) {
      ++shadows_->alive;
      shadows_->latest = this;
   }
   ~NumberShadow() override {
      EXPECT_EQ(inCall_, 0) << "deleted under its own call";
      --shadows_->alive;
      if (shadows_->latest == this) shadows_->latest = nullptr;
   }
   bool initialize(std::string const&) override {
      if (initialized()) return true;
      if (fails) return false;
      kestor_ = Parcel::KestorFile(quiet(), path_, false).read();
      rows_ = 3;
      initializedIs(true);
      return true;
   }
   void detach(bool force) override {
      if (!initialized()) {
         if (flushing_ && force && !inCall_) flush(false);
         return;
      }
      flushing_ = true;
      if (force) flush(true);
      initializedIs(false);
   }
   /// @param forced its caller goes on by itself
   void flush(bool forced) {
      while (rows_ > 0) {
         ++inCall_;
         owner_.notify.keyDelFn({--rows_, 0});
         --inCall_;
      }
      flushing_ = false;
      if (forced) return;
      ++inCall_;
      owner_.flushComplete(*this);
      --inCall_;
   }
   bool callsBack() const override { return true; }
   bool connected() const override { return initialized(); }
   u32 members() const override { return rows_; }
   u32 buckets() const override { return 0; }
   u32 minSize() const override { return 0; }
   u32 maxSize() const override { return 0; }
   u32 capacity() const override { return 3; }
   MirakType type() const override { return MirakType::shadow; }
   Mem::NaoRootPath rootPath() const override { return path_; }
   std::string mirakName() const override { return path_.dirName(); }
   Parcel::KestorId kestorId() const override { return kestor_; }
   void validateVersionAnchor() const override {}
   Mem::MountStatus mountStatus() const override {
      return flushing_       ? Mem::MountStatus::flushing
             : initialized() ? Mem::MountStatus::mounted
                             : Mem::MountStatus::notMounted;
   }
   Value const* lookup(Key const&, bool& found, void*) const override {
      found = false;
      return &QueuedOps::typeDefault();
   }
   bool first(Value&, Mirak::IterHint&) const override { return false; }
   bool next(Key const&, Value&, Mirak::IterHint&) const override { return false; }

   bool fails = false;

private:
   ShadowClient& owner_;
   std::shared_ptr<Shadows> shadows_;
   Mem::NaoRootPath path_;
   Parcel::KestorId kestor_;
   u32 rows_ = 0;
   int inCall_ = 0;
   bool flushing_ = false;
};

std::unique_ptr<ShadowClient::BackEnd> ShadowClient::newShadow(u32 options) {
   flags = options;
   return std::make_unique<NumberShadow>(*this);
}

/// A writer and a follower of one table, in this process.
struct Flush : testing::Test {
   Flush()
      : writer("flush/table")
      , map("flush/table") {
      writer.init(settings(MirakType::writer));
      map.init(settings(MirakType::shadow));
      EXPECT_EQ(map.heard(), Log{"status 1"});
      EXPECT_EQ(map.flags, 0u);
   }
   ~Flush() override {
      if (map.initialized()) map.controlDetach();
      settle();
      EXPECT_EQ(map.shadows->alive, map.shadows->latest ? 1 : 0);
   }
   void reformat() {
      writer.controlDetach();
      fs::remove(fileOf("flush/table", "buckets"));
      writer.init(settings(MirakType::writer));
   }
   NoPoll const noPoll;
   Traces const traces{0};
   Client<QueuedOps> writer;
   ShadowClient map;
};

Log const removed{"removed 0x2/0", "removed 0x1/0", "removed 0x0/0"};
Log operator+(Log left, Log const& right) {
   left.insert(left.end(), right.begin(), right.end());
   return left;
}

} // namespace

TEST_F(Flush, ATableThatIsFormattedAnewAgainAndAgain) {
   for (int i = 0; i < 20; ++i) {
      reformat();
      ASSERT_TRUE(runUntil([&] { return map.mountStatus() == Mem::MountStatus::flushing; }));
      EXPECT_EQ(map.heard(), (Log{"not quiesced", "status 3"}));
      map.tryAttach();
      settle();
      EXPECT_TRUE(map.heard().empty()) << "left alone while it empties itself";
      map.shadows->latest->flush(false);
      EXPECT_EQ(map.heard(), removed + Log{"status 0"});
      ASSERT_TRUE(runUntil([&] { return map.mounted(); })) << i;
      EXPECT_EQ(map.heard(), Log{"status 1"});
      EXPECT_EQ(map.flags, 2u) << "attached before";
      EXPECT_EQ(map.kestorId(), writer.kestorId());
   }
   settle();
   EXPECT_EQ(map.shadows->alive, 1);
}

TEST_F(Flush, ItsClientLetsGoInEachOfItsCallbacks) {
   for (bool forced : {true, false})
      for (auto const* word : {"removed 0x1/0", "not quiesced", "status 3", "status 0"}) {
         SCOPED_TRACE(fmt::format("{}, {}", word, forced ? "forced" : "in the loop"));
         if (map.initialized()) map.controlDetach();
         settle();
         if (!writer.initialized()) writer.init(settings(MirakType::writer));
         map.init(settings(MirakType::shadow));
         bool let = false;
         map.inCall = [&](std::string const& heard) {
            if (heard != word || std::exchange(let, true)) return;
            map.controlDetach();
            if (!forced) map.log.push_back("done");
         };
         if (forced) {
            map.controlDetach();
         } else {
            map.heard();
            writer.cleanupAndDetach();
            ASSERT_TRUE(runUntil([&] { return let || map.mountStatus() == Mem::MountStatus::flushing; }));
            if (!let) map.shadows->latest->flush(false);
            EXPECT_TRUE(let);
            // In the middle of a removal the rest of the copy still goes.
            if (map.log.back() != "done") {
               EXPECT_EQ(map.log.back(), "status 0");
            }
         }
         EXPECT_FALSE(map.initialized() || map.mounter_);
         EXPECT_EQ(map.mountStatus(), Mem::MountStatus::notMounted);
         map.inCall = {};
         map.heard();
         settle();
         EXPECT_TRUE(map.heard().empty());
         EXPECT_EQ(map.shadows->alive, 1) << "behind the placeholder";
      }
}

TEST_F(Flush, AnAttachThatFailsInTheMiddleKeepsTheShadow) {
   reformat();
   ASSERT_TRUE(runUntil([&] { return map.mountStatus() == Mem::MountStatus::flushing; }));
   map.heard();
   map.shadows->latest->fails = true;
   map.attach("by hand");
   EXPECT_EQ(map.mountStatus(), Mem::MountStatus::flushing);
   EXPECT_TRUE(map.heard().empty());
   map.shadows->latest->flush(false);
   EXPECT_TRUE(runUntil([&] { return map.mounted(); }));
}

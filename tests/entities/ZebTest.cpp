// SPDX-License-Identifier: Apache-2.0
// Counted objects, their notifiees and their tree, without any table: lives and ends, visits in which members
// come and go, places in the tree.
#include "Lomi/Exception.h"
#include "Lomi/TaskSchedulerRoot.h"
#include "Thrum/Writer.h"
#include "Zeb/Entity.h"
#include "Zeb/NotifieeList.h"
#include "ZebParcel/CollectionControl.h"
#include "ZebParcel/Util.h"

#include <functional>
#include <gtest/gtest.h>
#include <thread>

namespace Zeb {
namespace {

/// An entity that says when it ends and what parents it heard of.
class Thing final : public Entity, public Tracked<Thing> {
public:
   explicit Thing(String name, bool fail = false)
      : name_(std::move(name)) {
      if (fail) throw std::runtime_error("no");
   }
   ~Thing() override {
      if (onEnd) onEnd();
   }
   String name() const override { return name_; }
   NotifieeListPtr notifieeList() const override { return {1, const_cast<NotifieeList*>(&list), {0, 0}}; }
   void handleParent(Ptr<Entity> const& parent) override {
      if (parent ? refuse : refuseEnd) throw Lomi::InvalidInitializeException("refused");
      heard.push_back(parent ? ZebParcel::Util::fullName(this).str() : "orphan");
   }

   std::function<void()> onEnd;
   bool refuse = false, refuseEnd = false;
   std::vector<std::string> heard;
   NotifieeList list;

private:
   String name_;
};

Ptr<Thing> thing(String const& name) {
   Ptr<Thing> made(new Thing(name), Ptr<Thing>::adopt);
   made->hasNotificationActiveIs(true);
   return made;
}

class Listener final : public PtrInterface::NotifieeConst {
public:
   explicit Listener(
       std::function<void(AttributeId)> hear, std::function<void()> farewell = [] {})
      : hear_(std::move(hear))
      , farewell_(std::move(farewell)) {}
   void onAttribute(AttributeId attribute, void const*) override { hear_(attribute); }
   void onZeroReferences() override { farewell_(); }

private:
   std::function<void(AttributeId)> hear_;
   std::function<void()> farewell_;
};

template <class... Args> Ptr<Listener> listener(Args... args) {
   Ptr<Listener> made(new Listener(args...), Ptr<Listener>::adopt);
   made->hasNotificationActiveIs(true);
   return made;
}

TEST(ZebPtr, TheLastReferenceEndsTheObjectOnceAndTheCountOfTheLivingShowsIt) {
   auto const living = [] { return Thing::zebAllocTrackTypeInfo_.figures().living; };
   auto const before = living();
   EXPECT_THROW(Ptr<Thing>(new Thing("", true), Ptr<Thing>::adopt), std::runtime_error);
   EXPECT_EQ(living(), before); // the failed one is taken back
   int ends = 0, farewells = 0;
   auto a = thing("a");
   a->onEnd = [&] { ++ends; };
   Ptr<Thing> kept;
   // A farewell that takes and drops references begins no second one; one that keeps a reference saves it.
   a->list.newMember(a.get(), listener([](AttributeId) {},
                                       [&, raw = a.get()] {
                                          ++farewells;
                                          Ptr<Thing> const passing(raw);
                                          kept = raw;
                                       }));
   Ptr<Entity const> b = a;
   EXPECT_EQ(a->references(), 2u);
   EXPECT_TRUE(b == a);
   a = nullptr;
   EXPECT_EQ(farewells, 0);
   b = nullptr;
   EXPECT_EQ(std::tuple(farewells, ends, kept->references()), std::tuple(1, 0, 1u));
   EXPECT_EQ(living(), before + 1);
   kept = nullptr;
   EXPECT_EQ(std::tuple(farewells, ends, living()), std::tuple(1, 1, before));
   auto const figures = Thing::zebAllocTrackTypeInfo_.figures();
   EXPECT_NE(figures.typeName.find("Thing"), std::string::npos);
   EXPECT_EQ(figures.bytes, 0u);
}

TEST(ZebPtr, CountsFromManyThreadsIfTheProcessAsksForIt) {
   VFPtrInterface::threadSafePointers_ = true;
   bool ended = false;
   auto shared = thing("shared");
   shared->onEnd = [&] { ended = true; };
   auto const work = [mine = shared] {
      for (int i = 0; i < 20000; ++i) Ptr<Thing> const copy = mine;
   };
   std::thread one(work), two(work);
   one.join();
   two.join();
   EXPECT_EQ(shared->references(), 2u); // this one and `work`'s
   VFPtrInterface::threadSafePointers_ = false;
   EXPECT_FALSE(ended);
}

TEST(NotifieeList, MembersMayComeAndGoDuringAVisitAndTheObjectStaysUntilItsEnd) {
   auto subject = thing("subject");
   std::string told;
   bool ended = false;
   subject->onEnd = [&] { ended = true; };
   auto& list = subject->list;
   auto const raw = subject.get();
   auto const add = [&](Ptr<Listener> const& one) { list.newMember(raw, one); };
   auto const late = listener([&](AttributeId id) { told += "late" + std::to_string(id) + " "; });
   auto const gone = listener([&](AttributeId) { told += "gone "; });
   Ptr<Listener> self;
   self = listener([&](AttributeId id) {
      told += "self" + std::to_string(id) + " ";
      if (id != 1) return;
      NotifieeListPtr::deleteMember(raw->notifieeList(), raw, gone.get()); // behind this one
      NotifieeListPtr::deleteMember(raw->notifieeList(), raw, self.get()); // the one that runs
      self = nullptr;
      add(late);         // hears of the inner visit, not of this one
      list.visit(2);     // within the visit
      subject = nullptr; // the last reference
      told += "still ";
      EXPECT_FALSE(ended);
   });
   auto const quiet = listener([&](AttributeId) { told += "quiet "; });
   quiet->hasNotificationActiveIs(false);
   add(quiet);
   add(self);
   add(self); // once is enough
   add(gone);
   add(listener([&](AttributeId id) { told += "end" + std::to_string(id) + " "; }));
   list.visit(1);
   EXPECT_EQ(told, "self1 end2 late2 still end1 ");
   EXPECT_FALSE(ended); // the event loop ends it
   while (!ended) Lomi::TaskSchedulerRoot::root().run(1);
   EXPECT_EQ(late->references(), 1u);
   EXPECT_EQ(gone->references(), 1u);
}

TEST(NotifieeList, WhatANotifieeThrowsLeavesTheListWhole) {
   auto const subject = thing("subject");
   int told = 0;
   auto const bad = listener([&](AttributeId) {
      NotifieeListPtr::deleteMember(subject->notifieeList(), subject.get(), nullptr);
      throw std::runtime_error("no");
   });
   subject->list.newMember(subject.get(), bad);
   subject->list.newMember(subject.get(), listener([&](AttributeId) { ++told; }));
   EXPECT_THROW(subject->list.visit(1), std::runtime_error);
   EXPECT_FALSE(subject->list.visiting());
   subject->list.deleteMember(subject.get(), bad.get());
   subject->list.visit(1);
   EXPECT_EQ(std::tuple(told, subject->list.members()), std::tuple(1, 1u));
}

TEST(ZebDir, GivesPlacesAndOrphansWhatLosesThem) {
   auto tree = Dir::DirIs("");
   auto const leaf = thing("leaf");
   tree->entityIs("a/b/leaf", leaf);
   EXPECT_EQ(ZebParcel::Util::fullName(leaf), "a/b/leaf");
   EXPECT_TRUE(tree->entity("a/b/leaf") == leaf);
   EXPECT_TRUE(tree->entity("a/b") == leaf->parent());
   EXPECT_FALSE(tree->entity("a/c/leaf") || tree->entity("a/b/leaf/x") || tree->entity(""));

   auto const refused = [&](char const* path, Ptr<Thing> const& what, char const* why) {
      try {
         tree->entityIs(path, what);
         ADD_FAILURE() << path;
      } catch (Lomi::InvalidInitializeException const& e) {
         EXPECT_NE(e.msg().find(why), std::string::npos) << e.msg();
      }
   };
   for (char const* path : {"", "/x", "a//x", "../x", "a/./x", "a/x/"}) refused(path, thing("x"), "empty");
   refused("a/y", thing("x"), "another name");
   refused("a/b/leaf", thing("leaf"), "taken");
   refused("a/b/leaf/x", thing("x"), "leaf is no directory");
   refused("b/leaf", leaf, "Entity leaf already initialized");
   auto const stubborn = thing("stubborn");
   stubborn->refuse = true;
   refused("a/stubborn", stubborn, "refused");
   EXPECT_FALSE(tree->entity("a/stubborn") || stubborn->parent());
   auto const full = Dir::DirIs("full");
   full->entityIs("x", thing("x"));
   EXPECT_THROW(tree->entityIs("full", full), Lomi::InvalidInitializeException);

   // A directory that goes takes along what is below it; so does the end of the tree.
   auto const other = thing("other");
   tree->entityIs("other", other);
   tree->entityDel("a");
   EXPECT_EQ(leaf->heard, (std::vector<std::string>{"a/b/leaf", "orphan"}));
   EXPECT_FALSE(leaf->parent() || tree->entity("a"));
   auto const angry = thing("angry");
   tree->entityIs("angry", angry);
   angry->refuseEnd = true; // nobody is left who could be told
   tree = nullptr;
   EXPECT_FALSE(angry->parent());
   EXPECT_EQ(other->heard, (std::vector<std::string>{"other", "orphan"}));
   EXPECT_EQ(ZebParcel::Util::fullName(other), "other");
}

TEST(Thrum, ACellIsOneForAllWhoNameItAndNeverMoves) {
   auto* const cell = Thrum::writer().cell("thrum.test");
   *cell += 3;
   for (int i = 0; i < 1000; ++i) Thrum::writer().cell(("thrum.test." + std::to_string(i)).c_str());
   EXPECT_EQ(Thrum::writer().cell("thrum.test"), cell);
   auto const cells = Thrum::writer().cells();
   EXPECT_EQ(std::count(cells.begin(), cells.end(), std::pair<std::string, std::uint64_t>("thrum.test", 3)),
             1);
}

} // namespace
} // namespace Zeb

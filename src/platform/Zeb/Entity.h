// SPDX-License-Identifier: Apache-2.0
// Zeb::Entity: a counted object with a name and a place in a tree. Zeb::Dir: an entity that holds others, by
// which a program builds its tree.
//
//    auto const tree = Zeb::Dir::DirIs("");
//    tree->entityIs("flowtracking/default/hwOffload/config", FlowTracking::hoFlowConfigFactory("config"));
//
// An entity's path is the names from the root down, with slashes between them; a root without a name adds
// nothing (ZebParcel::Util::fullName). A directory keeps what it holds alive; an entity knows its parent
// without keeping it. What leaves its directory, or outlives it, is an orphan.
//
// One thread uses a tree.
#pragma once

#include "Zeb/AllocTrack.h"
#include "Zeb/PtrInterface.h"
#include "Zeb/String.h"

#include <map>
#include <vector>

namespace Zeb {

class HOFLOW_EXPORT Entity : public PtrInterface {
public:
   virtual String name() const = 0;
   /// The parent has changed, to `parent` or to none. What this throws leaves parentIs().
   virtual void handleParent(Ptr<Entity> const& parent);

   Ptr<Entity> parent() const { return parent_; }
   /// For whoever keeps the tree. If handleParent() refuses a new parent, the old one stays.
   void parentIs(Ptr<Entity> const& parent);

protected:
   Entity() = default;

private:
   Entity* parent_ = nullptr;
};

class HOFLOW_EXPORT Dir final : public Entity, public Tracked<Dir> {
public:
   static Ptr<Dir> DirIs(String const& name);
   explicit Dir(String const& name)
      : name_(name) {}
   ~Dir() override;

   String name() const override { return name_; }
   /// Without a parent, all that it holds leaves it, too.
   void handleParent(Ptr<Entity> const& parent) override;

   /// Puts an entity in its place, and makes the directories that are missing on the way. Their names begin
   /// where this directory is. @param path its last component is the entity's name
   /// @throws Lomi::InvalidInitializeException: the path has an empty component, "." or ".."; it ends with
   ///         another name; the place is taken; something on the way is no directory; the entity has a place
   ///         already. The entity's own refusal passes through, too; it has no place then
   void entityIs(String const& path, Ptr<Entity> const& entity);
   /// Takes an entity out, which makes it an orphan. Nothing happens if there is none.
   void entityDel(String const& path);
   /// Null if there is none.
   Ptr<Entity> entity(String const& path) const;
   /// What it holds itself, by name.
   std::vector<Ptr<Entity>> entities() const;

private:
   void entryIs(Ptr<Entity> const& entity);
   void releaseAll();

   String name_;
   std::map<String, Ptr<Entity>> entries_;
};

} // namespace Zeb

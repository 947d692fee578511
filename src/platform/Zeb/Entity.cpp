// SPDX-License-Identifier: Apache-2.0
// The tree of entities. See Entity.h.
#include "Zeb/Entity.h"

#include "Lomi/Exception.h"
#include "Lomi/Trace.h"

#include <algorithm>
#include <exception>
#include <fmt/format.h>

namespace Zeb {

void Entity::handleParent(Ptr<Entity> const&) {}

void Entity::parentIs(Ptr<Entity> const& parent) {
   if (parent_ == parent.get()) return;
   Entity* const old = std::exchange(parent_, parent.get());
   try {
      handleParent(parent);
   } catch (...) {
      if (parent) parent_ = old; // a parent that is gone can't be had back
      throw;
   }
}

namespace {
[[noreturn]] void refuse(String const& name, String const& path, std::string_view why) {
   throw Lomi::InvalidInitializeException(
       fmt::format("Entity {} can't stand at \"{}\": {}", name, path, why));
}

std::vector<String> components(std::string_view path) {
   std::vector<String> parts;
   for (std::size_t begin = 0; begin <= path.size();) {
      std::size_t const end = std::min(path.find('/', begin), path.size());
      parts.emplace_back(path.substr(begin, end - begin));
      begin = end + 1;
   }
   return parts;
}
} // namespace

Ptr<Dir> Dir::DirIs(String const& name) {
   Ptr<Dir> const dir(new Dir(name), Ptr<Dir>::adopt);
   dir->hasNotificationActiveIs(true);
   return dir;
}

Dir::~Dir() {
   try {
      releaseAll();
   } catch (std::exception const& e) { // of a client that heard of its mount's end
      static auto const handler = Lomi::Platform::getDebugHandler("Zeb", true);
      LOMI_TRACE(*handler, 0, "Dir", "{}: an entity's end threw: {}", name_, e.what());
   }
}

void Dir::handleParent(Ptr<Entity> const& parent) {
   if (!parent) return releaseAll();
   if (!entries_.empty()) // their paths would change under them
      throw Lomi::InvalidInitializeException(
          fmt::format("Entity {} must have its place before it holds others", name_));
}

/// Each of them leaves, whatever another one throws.
void Dir::releaseAll() {
   std::exception_ptr first;
   for (auto const& [name, entity] : std::exchange(entries_, {})) {
      try {
         entity->parentIs(nullptr);
      } catch (...) {
         if (!first) first = std::current_exception();
      }
   }
   if (first) std::rethrow_exception(first);
}

void Dir::entityIs(String const& path, Ptr<Entity> const& entity) {
   String const name = entity->name();
   if (entity->parent())
      throw Lomi::InvalidInitializeException(fmt::format("Entity {} already initialized", name));
   auto parts = components(path.view());
   for (auto const& part : parts)
      if (part.empty() || part == "." || part == "..")
         refuse(name, path, "a part of the path is empty, \".\" or \"..\"");
   if (parts.back() != name) refuse(name, path, "the path ends with another name");
   parts.pop_back();
   Ptr<Dir> at = this;
   for (auto const& part : parts) {
      if (!at->entries_.contains(part)) at->entryIs(DirIs(part));
      at = dynamicPtr<Dir>(at->entries_[part]);
      if (!at) refuse(name, path, fmt::format("{} is no directory", part));
   }
   if (at->entries_.contains(name)) refuse(name, path, "the place is taken");
   at->entryIs(entity);
}

void Dir::entryIs(Ptr<Entity> const& entity) {
   auto const place = entries_.emplace(entity->name(), entity).first;
   try {
      entity->parentIs(this);
   } catch (...) {
      entries_.erase(place);
      throw;
   }
}

void Dir::entityDel(String const& path) {
   auto const found = entity(path);
   auto const holder = found ? dynamicPtr<Dir>(found->parent()) : nullptr;
   if (!holder) return;
   holder->entries_.erase(found->name());
   found->parentIs(nullptr);
}

Ptr<Entity> Dir::entity(String const& path) const {
   Dir const* at = this;
   Ptr<Entity> found;
   for (auto const& part : components(path.view())) {
      if (!at) return nullptr;
      auto const place = at->entries_.find(part);
      if (place == at->entries_.end()) return nullptr;
      found = place->second;
      at = dynamic_cast<Dir const*>(found.get());
   }
   return found;
}

std::vector<Ptr<Entity>> Dir::entities() const {
   std::vector<Ptr<Entity>> all;
   for (auto const& [name, entity] : entries_) all.push_back(entity);
   return all;
}

} // namespace Zeb

// SPDX-License-Identifier: Apache-2.0
// The list of modules, look-ups in it, and the refusals of the generic interface.
#include "Zeb/Registry.h"

#include "Lomi/Trace.h"
#include "Zeb/Exception.h"
#include "Zeb/GenericIfImpl.h"

#include <algorithm>
#include <fmt/format.h>
#include <vector>

namespace Zeb {
namespace {

/// Made at its first use, which may be before this file's own initialisation, and left to the system at the
/// process's end: a static object may look a type up in its destructor.
std::vector<Module const*>& list() {
   static auto& only = *new std::vector<Module const*>;
   return only;
}

template <class Matches> Attribute const* find(std::span<Attribute const> attributes, Matches&& matches) {
   auto const at = std::find_if(attributes.begin(), attributes.end(), matches);
   return at == attributes.end() ? nullptr : &*at;
}

} // namespace

void zebModuleIs(Module const* module) {
   auto& known = list();
   if (std::find(known.begin(), known.end(), module) != known.end()) return;
   known.push_back(module); // first, as modules may import each other
   for (Module const* const import : module->imports) zebModuleIs(import);
}

std::span<Module const* const> modules() { return list(); }

ZebType typeNamed(std::string_view name) {
   for (Module const* const module : list())
      for (unsigned index = 0; index < module->types.size(); ++index)
         if (module->types[index] && module->types[index]->name == name) return {module, index};
   return {};
}

bool ZebType::isDerived(ZebType base) const {
   for (ZebType type = info().base; type; type = type.info().base)
      if (type == base) return true;
   return false;
}

Attribute const* ZebType::attribute(AttributeId id) const {
   return find(info().attributes, [=](Attribute const& a) { return a.id == id; });
}

Attribute const* ZebType::attribute(std::string_view name) const {
   return find(info().attributes, [=](Attribute const& a) { return a.name == name; });
}

void throwNewEntityArgsException(Module const* module, unsigned index) {
   throw NewEntityArgsException(
       fmt::format("{} takes no arguments for a new entity", ZebType(module, index).name()));
}

void GenericIfImpl::throwUnhashableException(ZebType type) {
   throw UnhashableException(fmt::format("{} can't be hashed", type.name()));
}

void GenericIfImpl::throwTypeException(ZebType type, ZebType target) {
   throw TypeException(fmt::format("{} is no {}", type.name(), target.name()));
}

void const* GenericIfImpl::checkedValue(void const* object, ZebType type, ZebType target) {
   static Lomi::Platform::DebugHandler const handler("Zeb");
   if (type == target) {
      LOMI_ASSERT(!type.isPolymorphic(), handler, "!t.isPolymorphic()");
      return object;
   }
   if (!type.isDerived(target)) throwTypeException(type, target);
   LOMI_ASSERT(type.isPolymorphic(), handler, "type.isPolymorphic()");
   return object;
}

} // namespace Zeb

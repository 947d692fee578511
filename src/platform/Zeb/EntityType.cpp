// SPDX-License-Identifier: Apache-2.0
// The base type of entities, and variables that hold one. See EntityType.h.
#include "Zeb/EntityType.h"

#include "Zeb/Exception.h"
#include "ZebParcel/Util.h"

#include <new>

namespace Zeb {

namespace {

using Variable = Ptr<Entity>;

void construct(void* memory, void const* source) {
   new (memory) Variable(source ? *static_cast<Variable const*>(source) : Variable());
}
void destruct(void* variable) { static_cast<Variable*>(variable)->~Variable(); }
void parse(void*, String const&, ZebType type) {
   throw SyntaxException(fmt::format("{} is an entity and has no text form", type.name()));
}
String print(void const* variable, ZebType) {
   auto const& entity = *static_cast<Variable const*>(variable);
   return entity ? ZebParcel::Util::fullName(entity) : String();
}
std::uint32_t hash(void const*, ZebType type) { GenericIfImpl::throwUnhashableException(type); }
void const* passedAs(void const* object, ZebType type, ZebType target) {
   if (type != target && !type.isDerived(target)) GenericIfImpl::throwTypeException(type, target);
   return object;
}

constexpr TypeInfo base{"Zeb::Entity",
                        typeIsEntity | typeByReference,
                        sizeof(Entity),
                        {},
                        {nullptr, &GenericIfImpl::GenericIfPtrInterfaceMethods<Entity>::vtable_}};
constexpr TypeInfo const* types[] = {&base};

} // namespace

constinit ValueMethods const GenericIfImpl::GenericIfPtrInterfaceMethods<Entity>::vtable_{
    construct, destruct, parse, print, hash, passedAs};
constinit Module const entityModule{"Entity", types};

} // namespace Zeb

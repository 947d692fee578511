// SPDX-License-Identifier: Apache-2.0
// What the registry knows of entities as such: their common base type, and how a variable that holds one is
// made, unmade and printed. Such a variable is a Zeb::Ptr<Zeb::Entity>, whatever the entity's own type is; an
// entity that is handed to an operation is a `Zeb::Entity*`.
#pragma once

#include "Zeb/Composite.h"
#include "Zeb/Entity.h"

namespace Zeb {

extern HOFLOW_EXPORT Module const entityModule;

inline constexpr ZebType typeEntity{&entityModule, 0};
template <> inline constexpr ZebType typeOf<Entity> = typeEntity;

namespace GenericIfImpl {

template <class Base> struct GenericIfPtrInterfaceMethods;

template <> struct HOFLOW_EXPORT GenericIfPtrInterfaceMethods<Entity> {
   /// Copies pointers; prints an entity's path. Entities can be neither parsed nor hashed: the exceptions are
   /// those of values that can't. The checked assignment passes an entity as its own type and as its base.
   static ValueMethods const vtable_;
};

} // namespace GenericIfImpl
} // namespace Zeb

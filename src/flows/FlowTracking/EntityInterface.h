// SPDX-License-Identifier: Apache-2.0
// FlowTracking::EntityInterface: the generic interface of a table entity: what the registry says of its type,
// and the operations by which a program that has never seen its header creates one, reads and changes its
// collections by attribute id, and walks them. Made once for all four.
//
// An operation may throw what the collection's own operation throws: a change on a reader is
// Lomi::NoPermissionException, not the status "not defined". `get`, `del` and `has` of a collection need a
// key.
#pragma once

#include "FlowTracking/Types.h"
#include "Zeb/EntityType.h"
#include "Zeb/Exception.h"
#include "Zeb/GenericIfImpl.h"
#include "ZebMirak/Types.h"

#include <array>
#include <type_traits>

namespace FlowTracking {

template <class E> struct EntityInterface {
   using Status = Zeb::GenericIf::Status;
   using Op = Zeb::GenericIf::AttributeOp;
   static constexpr Zeb::AttributeId first = 258; ///< collection, control, collection, control, mountPath
   static constexpr bool hasTwoNames =
       std::is_invocable_v<decltype(&E::mountPath), Zeb::String const&, Zeb::String const&>;

   static E& self(void* entity) { return static_cast<E&>(*static_cast<Zeb::Entity*>(entity)); }

   static Zeb::Ptr<Zeb::Entity> newEntityForDir(Zeb::String const& name, void* args) {
      if (args) Zeb::throwNewEntityArgsException(Zeb::typeOf<E>.module(), Zeb::typeOf<E>.index());
      return E::make(name);
   }
   static void constructFromCtorArgs(void* memory, void* const* args) {
      new (memory) Zeb::Ptr<Zeb::Entity>(E::make(*static_cast<Zeb::String const*>(args[0])));
   }

   static Status attributeOp(void* result, void* entity, Zeb::AttributeId attribute, Op operation,
                             void const* key, void const* argument, void const* argument2) {
      switch (attribute) {
      case first:
         return collectionOp(self(entity).ip_, result, operation, key, argument);
      case first + 1:
         return controlOp(self(entity).ip_, result, operation, argument);
      case first + 2:
         return collectionOp(self(entity).ip6_, result, operation, key, argument);
      case first + 3:
         return controlOp(self(entity).ip6_, result, operation, argument);
      case first + 4:
         return mountPathOp(result, operation, argument, argument2);
      default:
         return Status::unknownAttribute;
      }
   }

   static void* iterator(void* entity, void const* key, Zeb::AttributeId attribute,
                         Zeb::IteratorMethods const*& methods) {
      if (attribute != first && attribute != first + 2) return nullptr;
      methods = &iteratorMethods;
      return attribute == first ? iteratorOf(self(entity).ip_, key) : iteratorOf(self(entity).ip6_, key);
   }

private:
   using Iterator4 = typename E::Attribute4::Map::IteratorConst;
   using Iterator6 = typename E::Attribute6::Map::IteratorConst;

   template <class Attribute>
   static Status collectionOp(Attribute& attribute, void* result, Op operation, void const* key,
                              void const* argument) {
      using Record = typename Attribute::Record;
      auto const at = [key]() -> auto const& { return *static_cast<typename Attribute::Key const*>(key); };
      auto const answer = [result](auto value) {
         return Zeb::GenericIfImpl::assign(result, value), Status::done;
      };
      switch (operation) {
      case Op::get:
         return answer(attribute.get(at()));
      case Op::set:
         attribute.is(*static_cast<Record const*>(argument));
         return Status::done;
      case Op::del:
         return answer(attribute.del(at()));
      case Op::members:
         return answer(std::uint32_t(attribute.map().members()));
      case Op::zero:
         return answer(std::uint32_t(0));
      case Op::has:
         return answer(std::uint8_t(attribute.has(at())));
      default:
         return Status::notDefined;
      }
   }

   template <class Attribute>
   static Status controlOp(Attribute& attribute, void* result, Op operation, void const* argument) {
      using Control = Zeb::Ptr<ZebMirak::CollectionControl>;
      if (operation == Op::get)
         *static_cast<Control*>(result) = attribute.control();
      else if (operation == Op::set)
         attribute.controlIs(*static_cast<Control const*>(argument));
      else
         return Status::notDefined;
      return Status::done;
   }

   static Status mountPathOp(void* result, Op operation, void const* argument, void const* argument2) {
      if (operation != Op::call) return Status::notDefined;
      auto const text = [](void const* from) -> Zeb::String const& {
         return *static_cast<Zeb::String const*>(from);
      };
      if constexpr (hasTwoNames)
         *static_cast<Zeb::String*>(result) = E::mountPath(text(argument), text(argument2));
      else
         *static_cast<Zeb::String*>(result) = E::mountPath(text(argument));
      return Status::done;
   }

   // --- walks ---

   template <class Attribute> static void* iteratorOf(Attribute& attribute, void const* key) {
      using Iterator = typename Attribute::Map::IteratorConst;
      if (!key) return new Iterator(&attribute.map());
      return new Iterator(&attribute.map(), *static_cast<typename Attribute::Key const*>(key));
   }
   /// Calls `use` with the iterator as what it is.
   template <class Use> static auto walk(void const* iterator, Zeb::AttributeId attribute, Use use) {
      // The collections of HosStateCounter have iterators of one type.
      if (attribute == first) return use(*static_cast<Iterator4*>(const_cast<void*>(iterator)));
      return use(*static_cast<Iterator6*>(const_cast<void*>(iterator)));
   }
   static constexpr Zeb::IteratorMethods iteratorMethods{
       .iterObj =
           [](void const* iterator, Zeb::AttributeId attribute, void* row) {
              walk(iterator, attribute, [row]<class I>(I& at) {
                 using Record =
                     std::conditional_t<std::is_same_v<I, Iterator4>, typename E::Attribute4::Record,
                                        typename E::Attribute6::Record>;
                 Zeb::GenericIfImpl::assign<Record>(row, at.row());
              });
           },
       .iterKey =
           [](void const* iterator, Zeb::AttributeId attribute, void* key) {
              walk(iterator, attribute, [key](auto& at) { Zeb::GenericIfImpl::assign(key, at.row().key()); });
              return true;
           },
       .iterNonnull =
           [](void const* iterator, Zeb::AttributeId attribute) {
              return walk(iterator, attribute, [](auto& at) { return at.valid(); });
           },
       .iterInc =
           [](void* iterator, Zeb::AttributeId attribute) {
              walk(iterator, attribute, [](auto& at) { at.advance(); });
           },
       .iterDel = [](void* iterator,
                     Zeb::AttributeId attribute) { walk(iterator, attribute, [](auto& at) { delete &at; }); },
   };

   // --- what the registry says ---

   static constexpr Zeb::Parameter parameters[] = {{"ftrTypeStr", Zeb::typeString},
                                                   {"name", Zeb::typeString}};

public:
   static constexpr std::array<Zeb::Attribute, 5> attributes{{
       {first, Zeb::AttributeKind::collection, E::attributeNames[0],
        Zeb::typeOf<typename E::Attribute4::Record>, Zeb::typeOf<typename E::Attribute4::Key>},
       {first + 1, Zeb::AttributeKind::collectionControl, E::attributeNames[1],
        Zeb::typeOf<ZebMirak::CollectionControl>},
       {first + 2, Zeb::AttributeKind::collection, E::attributeNames[2],
        Zeb::typeOf<typename E::Attribute6::Record>, Zeb::typeOf<typename E::Attribute6::Key>},
       {first + 3, Zeb::AttributeKind::collectionControl, E::attributeNames[3],
        Zeb::typeOf<ZebMirak::CollectionControl>},
       {first + 4,
        Zeb::AttributeKind::staticFunction,
        "mountPath",
        Zeb::typeString,
        {},
        {parameters, hasTwoNames ? 2u : 1u}},
   }};

   static constexpr Zeb::TypeInfo info{
       E::typeName,
       Zeb::typeIsEntity | Zeb::typeByReference,
       sizeof(E),
       attributes,
       {newEntityForDir, &Zeb::GenericIfImpl::GenericIfPtrInterfaceMethods<Zeb::Entity>::vtable_,
        constructFromCtorArgs, attributeOp, iterator},
       Zeb::typeEntity,
   };
};

} // namespace FlowTracking

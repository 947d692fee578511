// SPDX-License-Identifier: Apache-2.0
// The generic interface of value types, made from their C++ types: value methods for every type that has a
// text form, and attribute operations for those that have a Declaration (Composite.h). A module is then a
// list:
//
//    constexpr Zeb::TypeInfo const* types[] = {&Zeb::GenericIfImpl::compositeInfo<HoIpFlowStatus>, ...};
//    constinit Zeb::Module const module{"HoFlowStatus", types, imports};
//
// Entities are no values; their entries are written by hand, as they differ.
#pragma once

#include "Zeb/Composite.h"
#include "Zeb/Exception.h"
#include "Zeb/Hash.h"

#include <array>
#include <cstddef>
#include <cstring>
#include <new>
#include <tuple>
#include <type_traits>

namespace Zeb::GenericIfImpl {

/// Puts a value where a constructed one of its type is. All of its bytes, also those without a meaning.
template <class T> void assign(void* to, T const& value) {
   if constexpr (std::is_trivially_copyable_v<T>)
      std::memcpy(to, &value, sizeof(T));
   else
      *static_cast<T*>(to) = value;
}

template <class T> void construct(void* memory, void const* source) {
   if (!source)
      new (memory) T();
   else if constexpr (std::is_trivially_copyable_v<T>)
      std::memcpy(memory, source, sizeof(T));
   else
      new (memory) T(*static_cast<T const*>(source));
}

template <class T> void destruct(void* object) {
   if constexpr (!std::is_trivially_destructible_v<T>) static_cast<T*>(object)->~T();
}

template <class T> void parse(void* object, String const& text, ZebType) {
   assign(object, Zeb::strepToValue(text, static_cast<T*>(nullptr)));
}

template <class T> String print(void const* object, ZebType) {
   return valueToStrep(*static_cast<T const*>(object));
}

/// Keys have a hash; a key of one byte is hashed as that byte. Records have none.
template <class T> std::uint32_t hash(void const* object, ZebType type) {
   if constexpr (requires(T const& value) { value.hash(0u); }) {
      return static_cast<T const*>(object)->hash(0u);
   } else if constexpr (Impl::hasBareStrep<T>) {
      static_assert(sizeof(T) == 1, "one field of one byte");
      unsigned char byte;
      std::memcpy(&byte, object, 1);
      return hashSingleAttr<unsigned char>(0, byte);
   } else {
      throwUnhashableException(type);
   }
}

/// Passes a value of the very type, and an object whose type derives from `target`. @throws TypeException
HOFLOW_EXPORT void const* checkedValue(void const* object, ZebType type, ZebType target);

template <class T>
inline constexpr ValueMethods valueMethods{construct<T>, destruct<T>, parse<T>,
                                           print<T>,     hash<T>,     checkedValue};

// --- operations ---

/// Operations on the value as a whole. A type without an operator< has no such operation.
template <class T>
GenericIf::Status valueOp(void* result, T const& value, GenericIf::AttributeOp operation,
                          void const* argument) {
   auto const answer = [result](bool yes) {
      assign(result, static_cast<std::uint8_t>(yes));
      return GenericIf::Status::done;
   };
   if (operation == GenericIf::AttributeOp::nonzero) {
      if constexpr (std::is_class_v<T> && std::constructible_from<bool, T const&>)
         return answer(static_cast<bool>(value));
      else
         return answer(!(value == T()));
   }
   if (operation == GenericIf::AttributeOp::equal) return answer(value == *static_cast<T const*>(argument));
   if constexpr (requires { value < value; })
      if (operation == GenericIf::AttributeOp::less) return answer(value < *static_cast<T const*>(argument));
   return GenericIf::Status::notDefined;
}

template <class T, class A>
GenericIf::Status fieldOp(A const&, void* result, void* object, GenericIf::AttributeOp operation,
                          void const* argument) {
   using enum GenericIf::AttributeOp;
   constexpr auto reading = A::kind == AttributeKind::function ? call : get;
   if (operation == reading) {
      assign<Impl::FieldType<T, A>>(result, A::read(*static_cast<T const*>(object)));
      return GenericIf::Status::done;
   }
   if constexpr (A::kind == AttributeKind::field)
      if (operation == set) {
         (static_cast<T*>(object)->*A::set)(*static_cast<Impl::FieldType<T, A> const*>(argument));
         return GenericIf::Status::done;
      }
   return GenericIf::Status::notDefined;
}

/// Of a type without attributes.
template <class T>
GenericIf::Status plainOp(void* result, void* object, AttributeId attribute, GenericIf::AttributeOp operation,
                          void const*, void const* argument, void const*) {
   if (attribute != GenericIf::noAttribute) return GenericIf::Status::unknownAttribute;
   return valueOp(result, *static_cast<T const*>(object), operation, argument);
}

template <class T>
GenericIf::Status compositeOp(void* result, void* object, AttributeId attribute,
                              GenericIf::AttributeOp operation, void const* key, void const* argument,
                              void const* argument2) {
   GenericIf::Status status = GenericIf::Status::unknownAttribute;
   auto const tried = [&](auto const& a) {
      if (a.id == attribute) status = fieldOp<T>(a, result, object, operation, argument);
      return a.id == attribute;
   };
   bool const found =
       std::apply([&](auto const&... a) { return (tried(a) || ...); }, Declaration<T>::attributes);
   return found ? status : plainOp<T>(result, object, attribute, operation, key, argument, argument2);
}

template <class T> void constructFromCtorArgs(void* memory, void* const* args) {
   constexpr auto constructed = Impl::constructedOnes<T>();
   [&]<std::size_t... i>(std::index_sequence<i...>) {
      new (memory) T(*static_cast<Impl::FieldType<T, std::tuple_element_t<i, decltype(constructed)>> const*>(
          args[i])...);
   }
   (std::make_index_sequence<std::tuple_size_v<decltype(constructed)>>());
}

// --- entries of a module ---

template <class T> constexpr auto attributesOf() {
   return std::apply(
       []<class... A>(A const&... a) {
          return std::array<Attribute, sizeof...(A)>{
              Attribute{a.id, A::kind, a.name, a.type ? a.type : typeOf<Impl::FieldType<T, A>>}...};
       },
       Declaration<T>::attributes);
}
template <class T> inline constexpr auto attributeArray = attributesOf<T>();

/// A value without attributes.
template <class T> constexpr TypeInfo plainInfo(char const* name) {
   return {name, typeIsValue, sizeof(T), {}, {nullptr, &valueMethods<T>, nullptr, plainOp<T>}};
}

/// A key or record. `flags` says how it is passed to functions.
template <class T, std::uint16_t flags = typeIsValue | typeByReference>
inline constexpr TypeInfo compositeInfo{
    T::typeName,
    flags,
    sizeof(T),
    attributeArray<T>,
    {nullptr, &valueMethods<T>, constructFromCtorArgs<T>, compositeOp<T>}};

} // namespace Zeb::GenericIfImpl

// SPDX-License-Identifier: Apache-2.0
// What a key or record says of itself, once: its attributes, with their ids, names and accessors. The text
// form, the parser and the generic interface (GenericIfImpl.h) are made of this.
//
//    template <> struct Zeb::Declaration<Status> {
//       static constexpr std::tuple attributes{
//           Zeb::constructed<&Status::key>(2, "key"),   // given to the constructor
//           Zeb::field<&Status::hoFlowState, &Status::hoFlowStateIs>(3, "hoFlowState"),
//           Zeb::function<&Status::mirakString>(4, "mirakString")};
//    };
//
// Attributes stand in the order of their ids; the constructor takes those that are `constructed`, in their
// order. The text form is one line,
//
//    Value('FlowTracking::HoIpFlowStatus', ** {'key': ..., 'hoFlowState': ...})
//
// with every stored field in its own text form, and nothing of it may differ: no other blank, no other order,
// no field left out. A type with `bareStrep` in its declaration has one field and no form around it.
#pragma once

#include "Zeb/Strep.h"
#include "Zeb/ZebType.h"

#include <functional>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>

namespace Zeb {

template <class T> struct Declaration;

/// The registered type of a C++ type; none unless specialised (beside the type's module).
template <class T> inline constexpr ZebType typeOf{};

// --- how a declaration is written ---

template <AttributeKind kind_, auto get_, auto set_> struct AttributeOf {
   static constexpr AttributeKind kind = kind_;
   static constexpr auto get = get_, set = set_;
   static constexpr bool isStored = kind_ == AttributeKind::constructedField || kind_ == AttributeKind::field;

   AttributeId id;
   char const* name;
   ZebType type = {}; ///< where the C++ type has several registered ones

   template <class T> static decltype(auto) read(T const& object) { return std::invoke(get_, object); }
};

template <auto get> constexpr auto constructed(AttributeId id, char const* name, ZebType type = {}) {
   return AttributeOf<AttributeKind::constructedField, get, nullptr>{id, name, type};
}
template <auto get, auto set> constexpr auto field(AttributeId id, char const* name, ZebType type = {}) {
   return AttributeOf<AttributeKind::field, get, set>{id, name, type};
}
template <auto get> constexpr auto readOnly(AttributeId id, char const* name, ZebType type = {}) {
   return AttributeOf<AttributeKind::readOnlyField, get, nullptr>{id, name, type};
}
template <auto get> constexpr auto function(AttributeId id, char const* name) {
   return AttributeOf<AttributeKind::function, get, nullptr>{id, name};
}

template <auto outer, auto inner> struct Through {
   template <class T> decltype(auto) operator()(T const& object) const {
      return std::invoke(inner, std::invoke(outer, object));
   }
};

/// The fields of the value that `outer` gives, as read-only ones under the same ids and names.
template <auto outer, class... Attributes>
constexpr auto fieldsWithin(std::tuple<Attributes...> const& attributes) {
   return std::apply(
       [](auto const&... a) {
          return std::tuple_cat([](auto const& one) {
             using A = std::remove_cvref_t<decltype(one)>;
             if constexpr (A::kind == AttributeKind::function)
                return std::tuple();
             else
                return std::tuple(readOnly<Through<outer, A::get>{}>(one.id, one.name, one.type));
          }(a)...);
       },
       attributes);
}

// --- text forms ---

namespace Impl {

template <class T> constexpr bool hasBareStrep = requires { Declaration<T>::bareStrep; };

template <class T, class Visit> constexpr void forEachAttribute(Visit&& visit) {
   std::apply([&](auto const&... a) { (visit(a), ...); }, Declaration<T>::attributes);
}

template <class T, class A>
using FieldType = std::remove_cvref_t<decltype(A::read(std::declval<T const&>()))>;

/// Moves behind what stands before the field's value.
inline void openField(String::IteratorConst& it, String::IteratorConst const& end, bool& first,
                      char const* name) {
   needString(it, end, ((first ? "'" : ", '") + std::string(name) + "': ").c_str());
   first = false;
}

/// A tuple of those attributes of T that are set at construction.
template <class T> constexpr auto constructedOnes() {
   return std::apply(
       [](auto const&... a) {
          return std::tuple_cat([](auto const& one) {
             if constexpr (std::remove_cvref_t<decltype(one)>::kind == AttributeKind::constructedField)
                return std::tuple(one);
             else
                return std::tuple();
          }(a)...);
       },
       Declaration<T>::attributes);
}

} // namespace Impl

/// The text form of a T that has a declaration.
template <class T> String compositeToStrep(T const& value) {
   std::string text;
   if constexpr (!Impl::hasBareStrep<T>) text = "Value('" + std::string(T::typeName) + "', ** {";
   bool first = true;
   Impl::forEachAttribute<T>([&]<class A>(A const& attribute) {
      if constexpr (A::isStored) {
         if constexpr (!Impl::hasBareStrep<T>)
            text += (first ? "'" : ", '") + std::string(attribute.name) + "': ";
         first = false;
         text += valueToStrep(A::read(value)).view();
      }
   });
   if constexpr (!Impl::hasBareStrep<T>) text += "})";
   return text;
}

/// Parses a T and moves `it` behind it. Fields that the constructor takes stand first.
template <class T> T compositeFromStrep(String::IteratorConst& it, String::IteratorConst const& end) {
   bool first = true;
   if constexpr (!Impl::hasBareStrep<T>)
      needString(it, end, ("Value('" + std::string(T::typeName) + "', ** {").c_str());
   auto const parse = [&]<class A>(A const& attribute) {
      if constexpr (!Impl::hasBareStrep<T>) Impl::openField(it, end, first, attribute.name);
      return deserializeAttr<Impl::FieldType<T, A>>(it, end, attribute.name);
   };
   // In braces, so that they are parsed in their order.
   T value = std::apply(
       [](auto const&... field) { return T(field...); },
       std::apply([&](auto const&... a) { return std::tuple{parse(a)...}; }, Impl::constructedOnes<T>()));
   Impl::forEachAttribute<T>([&]<class A>(A const& attribute) {
      if constexpr (A::kind == AttributeKind::field) (value.*A::set)(parse(attribute));
   });
   if constexpr (!Impl::hasBareStrep<T>) needString(it, end, "})");
   return value;
}

} // namespace Zeb

// SPDX-License-Identifier: Apache-2.0
// What the registry knows of types: modules, types, attributes, and the operations by which a program that
// has never seen a type's header uses its values. Registry.h finds them by name; GenericIfImpl.h makes all of
// this for a value type out of one short declaration.
//
// Everything here is constant data: a module is a constant object with static storage, so types can refer to
// each other across modules and a ZebType stays good for the life of the process. Nothing is locked, since
// nothing changes; the values that the operations work on are their owner's business.
#pragma once

#include "Lomi/Export.h"
#include "Zeb/String.h"

#include <cstdint>
#include <span>

namespace Zeb {

struct Module;
struct TypeInfo;
struct Attribute;
class Entity;
template <class T> class Ptr;

using AttributeId = std::uint32_t;

/// A type, as its place in a module. A default one is no type.
class HOFLOW_EXPORT ZebType {
public:
   constexpr ZebType() = default;
   constexpr ZebType(Module const* module, unsigned index)
      : module_(module)
      , index_(index) {}

   constexpr Module const* module() const { return module_; }
   constexpr unsigned index() const { return index_; }
   explicit constexpr operator bool() const { return index_ != none; }

   /// All of these need a type.
   TypeInfo const& info() const;
   /// With its namespace: "FlowTracking::HoIpFlowKey".
   char const* name() const;
   bool isPolymorphic() const;
   /// Whether `base` is a type that this one derives from. No type derives from itself.
   bool isDerived(ZebType base) const;
   /// Null if the type has no such attribute.
   Attribute const* attribute(AttributeId id) const;
   Attribute const* attribute(std::string_view name) const;

   friend constexpr bool operator==(ZebType, ZebType) = default;

private:
   // Tells that there is no type. The address of a module is no constant to a compiler that checks pointers.
   static constexpr unsigned none = ~0u;
   Module const* module_ = nullptr;
   unsigned index_ = none;
};
using ZebTypeBase = ZebType;

namespace GenericIf {

/// What can be done with an attribute, or with a whole value. The numbers are given.
enum class AttributeOp : std::uint32_t {
   get = 0,     ///< copies a field; of a collection, the row of `key`, or the default row
   set = 1,     ///< stores `argument`; into a collection, as a row
   del = 2,     ///< removes the row of `key`, which goes to the result
   members = 3, ///< how many rows, a u32
   zero = 4,    ///< 0 as a u32
   has = 5,     ///< whether there is a row of `key`, one byte
   call = 10,   ///< calls a function
   // With noAttribute. The result is one byte.
   nonzero = 11, ///< the value differs from a default one
   equal = 12,   ///< it equals `argument`
   less = 13,    ///< it comes before `argument`
};

/// An answer, not a failure: operations that aren't defined are no errors of the program that asks.
enum class Status : std::uint32_t { done = 0, notDefined = 1, unknownAttribute = 2 };

/// Stands for the value as a whole. No attribute has this id.
inline constexpr AttributeId noAttribute = 0;

} // namespace GenericIf

/// What an attribute is. The numbers are given.
enum class AttributeKind : std::uint32_t {
   constructedField = 0x1012c00, ///< stored, set at construction only
   field = 0x1011c00,            ///< stored, with a writer
   readOnlyField = 0x0002800,    ///< read from within another field
   function = 0x0000810,         ///< of a value
   staticFunction = 0x0000818,   ///< of an entity's class
   collection = 0x1015c01,
   collectionControl = 0x1015c20,
};

struct Parameter {
   char const* name;
   ZebType type;
};

struct Attribute {
   AttributeId id;
   AttributeKind kind;
   char const* name;
   ZebType type;         ///< of the field, of the function's result, of the collection's rows, of the control
   ZebType keyType = {}; ///< of a collection
   std::span<Parameter const> parameters = {}; ///< of a function

   /// Part of the text form: it is stored and not found within another field.
   constexpr bool isStored() const {
      return kind == AttributeKind::constructedField || kind == AttributeKind::field;
   }
};

/// How a value of a type is made, unmade, printed, parsed and hashed. `memory` has the type's size and its
/// alignment, at most that of any value (alignof(std::max_align_t)).
struct ValueMethods {
   /// With a source, a copy of it; else the default value.
   void (*genericIfConstruct)(void* memory, void const* source);
   void (*genericIfDestruct)(void* object);
   /// Assigns the parsed value to the constructed `object`; leaves it as it was where it throws.
   /// @throws RangeException, SyntaxException
   void (*genericIfStrepToValue)(void* object, String const& text, ZebType type);
   String (*genericIfStrRep)(void const* object, ZebType type);
   /// @throws UnhashableException if values of the type can't be hashed
   std::uint32_t (*genericIfHash)(void const* object, ZebType type);
   /// The checked assignment: `object`, which is of `type`, as one of `target`. @throws TypeException if it
   /// is none
   void const* (*genericIfVoidPtrIs)(void const* object, ZebType type, ZebType target);
};

/// A walk over a collection of an entity. Each takes the attribute, as the two collections of an entity have
/// iterators of different types.
struct IteratorMethods {
   void (*iterObj)(void const* iterator, AttributeId attribute, void* row); ///< copies the row
   bool (*iterKey)(void const* iterator, AttributeId attribute, void* key); ///< copies the key; always true
   bool (*iterNonnull)(void const* iterator, AttributeId attribute);        ///< whether there is a row here
   void (*iterInc)(void* iterator, AttributeId attribute);                  ///< to the next row
   void (*iterDel)(void* iterator, AttributeId attribute);                  ///< frees the iterator, no row
};

/// The operations of a type. What a type doesn't have is null.
struct Implementation {
   /// Entities. @throws NewEntityArgsException if `args` isn't null
   Ptr<Entity> (*newEntityForDir)(String const& name, void* args) = nullptr;
   ValueMethods const* values = nullptr;
   /// `args`: one pointer for each attribute that is set at construction; of an entity, its name, and then
   /// the result is a counted pointer.
   void (*genericIfConstructFromCtorArgs)(void* memory, void* const* args) = nullptr;
   /// @param result a constructed value of the type that the operation gives; null where it gives none
   /// @param key of a collection's row
   /// @param argument the value to store or to compare with; of a function, its first parameter
   /// @param argument2 of a function, its second parameter
   GenericIf::Status (*genericIfAttributeOp)(void* result, void* object, AttributeId attribute,
                                             GenericIf::AttributeOp operation, void const* key,
                                             void const* argument, void const* argument2) = nullptr;
   /// Entities: an iterator from `key` on, from the start if that is null. Null if the attribute is no
   /// collection. It is freed by `methods->iterDel`.
   void* (*genericIfIterator)(void* entity, void const* key, AttributeId attribute,
                              IteratorMethods const*& methods) = nullptr;
};

/// Bits of TypeInfo::flags.
inline constexpr std::uint16_t typeIsValue = 0x0001, typeIsEntity = 0x0040, typeByReference = 0x0400;

struct TypeInfo {
   char const* name;
   std::uint16_t flags;
   std::uint32_t size;                    ///< bytes
   std::span<Attribute const> attributes; ///< by id
   Implementation implementation;
   ZebType base = {}; ///< that it derives from; none for a value
};

/// A group of types. Its index in `types` is a type's number.
struct Module {
   char const* name;
   std::span<TypeInfo const* const> types; ///< null where a type has no place yet
   std::span<Module const* const> imports = {};
};

inline TypeInfo const& ZebType::info() const { return *module_->types[index_]; }
inline char const* ZebType::name() const { return info().name; }
inline bool ZebType::isPolymorphic() const { return info().flags & typeIsEntity; }

} // namespace Zeb

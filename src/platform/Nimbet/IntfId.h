// SPDX-License-Identifier: Apache-2.0
// Nimbet::IntfId: names a network interface in 8 bytes, as keys and records carry it.
//
// Layout (part of the table format): u32 `number` at 0, u32 `kind` at 4. The number is the kernel's interface
// index unless the kind says otherwise; 0xffffffff with kind 0 is "no interface".
#pragma once

#include "Zeb/Hash.h"
#include "Zeb/String.h"

#include <cstdint>
#include <ostream>
#include <type_traits>

namespace Nimbet {

class IntfId {
public:
   /// No interface: both words set, then `handleInitialized` with an empty name.
   IntfId()
      : number_(0xffffffff)
      , kind_(0) {
      handleInitialized(Zeb::String());
   }
   explicit IntfId(std::uint32_t number, std::uint32_t kind = 0)
      : number_(number)
      , kind_(kind) {}

   std::uint32_t number() const { return number_; }
   std::uint32_t kind() const { return kind_; }

   /// Second step of making an interface, after its words are set: gives it the interface that `name` names.
   /// An empty name, and one of no known form, leave it as it is. The known form is that of `str()`.
   void handleInitialized(Zeb::String const& name) {
      if (!name.empty()) parse(name.view());
   }

   std::uint32_t hash() const {
      std::uint64_t h = (number_ | static_cast<std::uint64_t>(kind_) << 32) * 0x9fb21c651e98df25u;
      return static_cast<std::uint32_t>(h ^ h >> 32);
   }

   bool operator==(IntfId other) const { return number_ == other.number_ && kind_ == other.kind_; }
   bool operator<(IntfId other) const {
      return kind_ != other.kind_ ? kind_ < other.kind_ : number_ < other.number_;
   }

   /// "none", "if7" for a kernel interface, "if7.2" with kind 2.
   Zeb::String str() const {
      if (*this == IntfId(0xffffffff, 0)) return "none";
      return kind_ ? Zeb::format("if%u.%u", number_, kind_) : Zeb::format("if%u", number_);
   }
   friend std::ostream& operator<<(std::ostream& out, IntfId intfId) { return out << intfId.str(); }

private:
   HOFLOW_EXPORT void parse(std::string_view name);

   std::uint32_t number_;
   std::uint32_t kind_;
};

inline Zeb::String valueToStrep(IntfId const& intfId) { return intfId.str(); }
/// @throws Zeb::RangeException
HOFLOW_EXPORT IntfId sequenceToValue(Zeb::String::IteratorConst& it, Zeb::String::IteratorConst const& end,
                                     IntfId*);

static_assert(sizeof(IntfId) == 8 && alignof(IntfId) == 4,
              "keys and records reserve 8 bytes at 4-aligned offsets");
static_assert(std::is_trivially_copyable_v<IntfId>, "rows are copied as bytes");

} // namespace Nimbet

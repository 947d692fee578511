// SPDX-License-Identifier: Apache-2.0
// The generation of a table's content. A writer that adopts what it finds keeps the id; one that formats the
// files anew moves the high half on. The id with value 0 means "none" and never stands in a file.
#pragma once

#include "Mem/SharedWords.h"

#include <fmt/format.h>

#include <string>

namespace Parcel {

using Mem::u16;
using Mem::u32;

struct KestorId {
   u16 low = 0;
   u16 high = 0;

   constexpr KestorId() = default;
   constexpr KestorId(u16 lowHalf, u16 highHalf)
      : low(lowHalf)
      , high(highHalf) {}
   constexpr explicit KestorId(u32 value)
      : low(static_cast<u16>(value))
      , high(static_cast<u16>(value >> 16)) {}

   constexpr u32 value() const { return low | static_cast<u32>(high) << 16; }
   std::string text() const { return fmt::format("{}:{}", low, high); }

   /// The next generation: the high half wraps within 16 bits and steps over an id of value 0.
   constexpr KestorId& bumpHigh() {
      ++high;
      if (value() == 0) ++high;
      return *this;
   }
   friend constexpr bool operator==(KestorId, KestorId) = default;
};
static_assert(sizeof(KestorId) == 4, "part of the file format");

} // namespace Parcel

template <> struct fmt::formatter<Parcel::KestorId> : fmt::formatter<fmt::string_view> {
   template <class Context> auto format(Parcel::KestorId id, Context& context) const {
      return fmt::format_to(context.out(), "{}:{}", id.low, id.high);
   }
};

// SPDX-License-Identifier: Apache-2.0
// The key and the row that every contender stores: those of the flow configuration table, 36 and 84 bytes.
// Peers treat both as plain bytes. Does not generate any; see Workload.h.
#pragma once

#include <cstdint>
#include <cstring>
#include <type_traits>

namespace Bench {

using u8 = std::uint8_t;
using u16 = std::uint16_t;
using u32 = std::uint32_t;
using u64 = std::uint64_t;

/// A flow as a switch keys it, byte for byte as the tables store it. The bytes that no field covers are
/// always zero here, so that peers may hash and compare the key as 36 raw bytes.
struct [[gnu::packed]] alignas(4) Key {
   u32 vrfId;
   u16 vlanId;
   u32 srcAddr;
   u32 dstAddr;
   u16 unused;
   u32 ipProtocol;
   u16 srcPort;
   u16 dstPort;
   u8 direction;
   u8 unused2[3];
   u32 intfId[2];
};

struct [[gnu::packed]] alignas(4) Row {
   Key key;
   u64 createTime;
   u64 updateTime;
   u8 srcEthAddr[6];
   u8 dstEthAddr[6];
   u8 vlanTag[6];
   u8 customerVlanTag[6];
   u32 cachedIntfId[2];
};

static_assert(sizeof(Key) == 36 && sizeof(Row) == 84, "the sizes that all figures are quoted for");
static_assert(std::is_trivially_copyable_v<Key> && std::is_trivially_copyable_v<Row>);

/// What a timed loop adds up from each row that it was given: two words, one near each end of the payload.
/// The whole row is checked outside the timed loops.
inline u64 rowSum(Row const& row) {
   u64 first;
   u32 last;
   std::memcpy(&first, &row.createTime, sizeof first);
   std::memcpy(&last, &row.cachedIntfId[1], sizeof last);
   return first + last;
}

/// Makes the compiler believe that somebody looks at every byte of `row`: a copy may not be shortened.
inline void wholeRowIsUsed(Row& row) { asm volatile("" : "+m"(row)); }

} // namespace Bench

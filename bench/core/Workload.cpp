// SPDX-License-Identifier: Apache-2.0
// How keys, rows and orders are made; see Workload.h for what they promise.
#include "core/Workload.h"

#include <algorithm>
#include <numeric>
#include <random>

namespace Bench {

std::string nameOf(KeyFamily family) { return family == KeyFamily::network ? "network" : "random"; }

/// A bijection of 64 bits that leaves no visible pattern.
u64 mix(u64 x) {
   x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ull;
   x = (x ^ (x >> 27)) * 0x94d049bb133111ebull;
   return x ^ (x >> 31);
}

namespace {

Key networkKey(u64 n) {
   // A client opens 64 connections in a row, its ports counting up, before the next client appears; clients
   // come round again with later ports. Server and service follow from the connection.
   u64 const connection = n % 64;
   u64 const client = n / 64 % 1024;
   u64 const round = n / (64 * 1024);
   u32 const server = static_cast<u32>((client * 7 + connection) % 50);
   Key key{};
   key.vrfId = 0;
   key.vlanId = static_cast<u16>(100 + client % 4);
   key.srcAddr = __builtin_bswap32(0x0a010000u + static_cast<u32>(client));
   key.dstAddr = __builtin_bswap32(0x0a020000u + server);
   key.ipProtocol = connection % 8 == 7 ? 17 : 6;
   key.srcPort = static_cast<u16>(32768 + round * 64 + connection);
   key.dstPort = connection % 8 == 7 ? 53 : connection % 2 ? 443 : 80;
   key.intfId[0] = static_cast<u32>(1 + client % 48);
   return key;
}

Key randomKey(u64 n) {
   u64 const a = mix(n + 1);
   u64 const b = mix(a ^ 0x9e3779b97f4a7c15ull);
   Key key{};
   key.srcAddr = static_cast<u32>(a);
   key.dstAddr = static_cast<u32>(a >> 32);
   key.ipProtocol = b & 1 ? 6 : 17;
   key.srcPort = static_cast<u16>(b >> 8);
   key.dstPort = static_cast<u16>(b >> 24);
   key.intfId[0] = static_cast<u32>(1 + (b >> 40) % 48);
   return key;
}

std::vector<u32> shuffled(std::size_t count, std::mt19937_64& random) {
   std::vector<u32> order(count);
   std::iota(order.begin(), order.end(), 0u);
   std::shuffle(order.begin(), order.end(), random);
   return order;
}

} // namespace

Key keyNumber(KeyFamily family, u64 n) { return family == KeyFamily::network ? networkKey(n) : randomKey(n); }

Row rowOf(Key const& key, u64 ordinal, u32 generation) {
   Row row{};
   row.key = key;
   u64 const word = mix(ordinal * 4 + generation);
   u64 const other = mix(word + 1);
   row.createTime = word;
   row.updateTime = other;
   std::memcpy(row.srcEthAddr, &word, 6);
   std::memcpy(row.dstEthAddr, &other, 6);
   std::memcpy(row.vlanTag, &word, 5);
   std::memcpy(row.customerVlanTag, &other, 5);
   row.cachedIntfId[0] = static_cast<u32>(word >> 13);
   row.cachedIntfId[1] = static_cast<u32>(other >> 17);
   return row;
}

Workload::Workload(KeyFamily keyFamily, std::size_t rowCount, u64 seed)
   : family(keyFamily)
   , rows(rowCount)
   , sumInserted(0)
   , sumOverwritten(0) {
   std::mt19937_64 random(seed + rowCount);
   inserts.reserve(rows);
   for (std::size_t n = 0; n < rows; ++n) {
      inserts.push_back(rowOf(keyNumber(family, n), n, 1));
      sumInserted += rowSum(inserts.back());
   }
   hits.reserve(rows);
   for (u32 const n : shuffled(rows, random)) hits.push_back({inserts[n].key, n});
   misses.reserve(rows);
   for (u32 const n : shuffled(rows, random)) {
      misses.push_back({keyNumber(family, rows + n), static_cast<u32>(rows) + n});
   }
   removals.reserve(rows);
   for (u32 const n : shuffled(rows, random)) removals.push_back({inserts[n].key, n});
   overwriteOrdinals = shuffled(rows, random);
   overwrites.reserve(rows);
   for (u32 const n : overwriteOrdinals) {
      overwrites.push_back(rowOf(inserts[n].key, n, 2));
      sumOverwritten += rowSum(overwrites.back());
   }
}

} // namespace Bench

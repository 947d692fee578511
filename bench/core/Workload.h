// SPDX-License-Identifier: Apache-2.0
// The rows, queries and orders of one run: built once per size and key family, the same for every contender.
//
// Every word of a row's payload is derived from its key's ordinal and a generation, so that a row proves
// itself. Orders of lookup, overwrite and removal are independent random permutations, none of them the order
// of insertion. Queries lie in the order in which they are asked: fetching a query costs a sequential read
// for everybody.
#pragma once

#include "core/Row.h"

#include <cstddef>
#include <string>
#include <vector>

namespace Bench {

enum class KeyFamily { network, random };

std::string nameOf(KeyFamily family);

/// A key to ask for, and which of the rows it is; ordinals from `rows` on are absent keys. Only the bare
/// limit may look at `ordinal`.
struct Query {
   Key key;
   u32 ordinal;
};

struct Workload {
   KeyFamily family;
   std::size_t rows;
   std::vector<Row> inserts;    // generation 1, in order of insertion; index is the ordinal
   std::vector<Query> hits;     // each row once
   std::vector<Query> misses;   // as many absent keys, of the same family
   std::vector<Query> removals; // each row once
   std::vector<Row> overwrites; // generation 2, each row once
   std::vector<u32> overwriteOrdinals;
   u64 sumInserted;    // rowSum over generation 1
   u64 sumOverwritten; // rowSum over generation 2

   Workload(KeyFamily keyFamily, std::size_t rowCount, u64 seed);
};

/// The key number `n` of a family; distinct for distinct n below 2^22.
/// network: 50 servers, clients in one /16, ports of a client counting up, two protocols, a few interfaces.
/// random: addresses and ports at random.
Key keyNumber(KeyFamily family, u64 n);

/// The row of `key` in a generation, all bytes determined by the two.
Row rowOf(Key const& key, u64 ordinal, u32 generation);

u64 mix(u64 x);

} // namespace Bench

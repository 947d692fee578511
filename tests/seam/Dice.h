// SPDX-License-Identifier: Apache-2.0
// Random numbers that are the same everywhere, and small queues.
#pragma once

#include "Tessel/TesselWriter.h"

#include <random>

namespace Test {

class Dice {
public:
   explicit Dice(Mem::u64 seed)
      : engine_(seed * 0x9e3779b97f4a7c15 + 1) {}
   Mem::u32 below(Mem::u32 limit) { return static_cast<Mem::u32>(engine_() % limit); }
   bool oneIn(Mem::u32 n) { return below(n) == 0; }

private:
   std::mt19937_64 engine_;
};

/// The queue's tables are as small as that while this lives.
struct SmallTables {
   explicit SmallTables(Mem::u32 entries) { std::swap(Tessel::leastEntries, saved = entries); }
   ~SmallTables() { Tessel::leastEntries = saved; }
   Mem::u32 saved;
};

} // namespace Test

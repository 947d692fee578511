// SPDX-License-Identifier: Apache-2.0
// The contenders that this build has: the bare limit and our own table always, the peers if their libraries
// are there (BENCH_PEERS). The first in the list are printed first.
#include "core/Contender.h"

namespace Bench {

std::vector<std::unique_ptr<Contender>> contenders() {
   std::vector<std::unique_ptr<Contender>> all;
   all.push_back(makeBareLimit());
   all.push_back(makeHoflow());
   all.push_back(makeHoflowFixed());
#ifdef BENCH_PEERS
   all.push_back(makeRteHash());
   all.push_back(makeLfht());
   all.push_back(makeInterprocess());
   all.push_back(makeLmdb());
   all.push_back(makeLmdbBatched());
#endif
   return all;
}

} // namespace Bench

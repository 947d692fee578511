// SPDX-License-Identifier: Apache-2.0
// What a figure's reader must know of the machine, and the two things a benchmark asks of it: a core to stay
// on and a folder in memory. Linux and x86 only.
#pragma once

#include "core/Row.h"

#include <string>

namespace Bench {

struct Machine {
   std::string processor;
   std::string kernel;
   std::string compiler;
   std::string buildType; // as CMake names it, with the flags
   bool optimised;
   int cores;
   u64 lastLevelCache; // bytes
   std::string hugePages;
};

Machine machine();

/// Runnable tasks over the last minute, the other loads on this machine included.
double loadAverage();

/// Keeps the calling thread on one core; false if it may not run there.
bool pinTo(int core);

/// The two lowest-numbered cores that this process may use; the second is -1 if there is one only.
void allowedCores(int& first, int& second);

/// Ticks of the time stamp counter in a nanosecond, measured over 50 ms.
double ticksPerNs();

/// Bytes of the blocks that all files under `directory` hold.
u64 blocksUnder(std::string const& directory);

/// A fresh folder under /dev/shm (or `$TMPDIR` where that is absent), removed with all it holds at the end.
class Folder {
public:
   Folder();
   ~Folder();
   Folder(Folder const&) = delete;
   std::string const& path() const { return path_; }
   void clear() const; // removes what it holds

private:
   std::string path_;
};

} // namespace Bench

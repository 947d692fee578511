// SPDX-License-Identifier: Apache-2.0
// The directory below which a test program keeps its tables.
#pragma once

#include "Mem/Paths.h"

#include <cstdlib>
#include <filesystem>
#include <string>
#include <unistd.h>

namespace Test {

/// A directory of this process's own, the root of all its tables; removed when the process ends.
inline std::string const& testRoot() {
   struct Root {
      std::string path = "/dev/shm/hoflow-test-XXXXXX";
      pid_t const owner = ::getpid();
      Root() {
         if (!::mkdtemp(path.data())) std::abort();
         Mem::RootPath::set(path);
      }
      ~Root() {
         if (::getpid() == owner) std::filesystem::remove_all(path);
      }
   };
   static Root root;
   return root.path;
}

} // namespace Test

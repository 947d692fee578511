// SPDX-License-Identifier: Apache-2.0
// One object a thread, that can be asked for until the process has ended.
//
// A plain thread_local object is gone when the destructors of static objects run, and those may still own a
// mounted collection, with its tasks, watches and connections. Here the object ends with its thread, too; who
// asks for it later gets a fresh one, which nobody destroys.
#pragma once

#include <utility>

namespace Lomi {

/// @return the calling thread's T, made at the first call. What T's constructor asks for ends after it.
template <class T> T& perThread() {
   thread_local constinit T* only = nullptr; // no destructor: good to the last
   if (only) [[likely]]
      return *only;
   only = new T;
   struct End {
      ~End() { delete std::exchange(only, nullptr); }
   };
   thread_local End const end; // once destroyed, it isn't made again
   static_cast<void>(end);
   return *only; // NOLINT(clang-analyzer-cplusplus.NewDelete): it takes a thread's end for the scope's
}

} // namespace Lomi

// SPDX-License-Identifier: Apache-2.0
// The seam through which tests watch and stop every access to shared state. Only the test build has it:
// there, Mem/SharedWords.h and Mem/FileCalls.h call the observer of the running thread before each shared
// load, before each shared store (with the bytes about to be stored) and before each system call that changes
// a file. In every other build the calls are empty and vanish.
//
// An observer may throw, copy files, run another role's operation, or end the process: whatever it does
// happens exactly between two accesses. It is per thread, so that a reader and a writer of one process can be
// told apart.
#pragma once

#include <cstddef>
#include <string>

namespace Mem::Seam {

/// A system call that is about to change a file or a directory. Paths are absolute.
struct FileCall {
   enum class Kind { create, allocate, truncate, punch, write, rename, unlink } kind;
   std::string path;        // the file; for rename, the source
   std::string target = {}; // rename only: where it goes
   unsigned long long offset = 0;
   unsigned long long length = 0;
   void const* bytes = nullptr; // write only: `length` bytes
};

class Observer {
public:
   virtual ~Observer() = default;
   virtual void beforeLoad(void const* /*at*/, std::size_t /*bytes*/) {}
   virtual void beforeStore(void* /*at*/, void const* /*value*/, std::size_t /*bytes*/) {}
   virtual void beforeFileCall(FileCall const& /*call*/) {}
};

#ifdef HOFLOW_TEST_SEAM
inline thread_local Observer* observer = nullptr;
inline void load(void const* at, std::size_t bytes) {
   if (observer) observer->beforeLoad(at, bytes);
}
inline void store(void* at, void const* value, std::size_t bytes) {
   if (observer) observer->beforeStore(at, value, bytes);
}
#else
inline void load(void const*, std::size_t) {}
inline void store(void*, void const*, std::size_t) {}
#endif

} // namespace Mem::Seam

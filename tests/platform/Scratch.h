// SPDX-License-Identifier: Apache-2.0
// What the platform's tests share: a root of tables of their own, and pipes between processes.
#pragma once

#include "Lomi/Trace.h"
#include "Mem/Paths.h"
#include "Processes.h"

#include <cstdlib>
#include <filesystem>
#include <string>
#include <unistd.h>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool sanitized = true;
#else
inline constexpr bool sanitized = false;
#endif

inline Lomi::Platform::DebugHandler& handler() {
   static auto const only = Lomi::Platform::getDebugHandler("test", true);
   return *only;
}

/// A directory on tmpfs that is the root of all tables while the object lives.
class Scratch {
public:
   Scratch()
      : before_(Mem::RootPath::get()) {
      char name[] = "/dev/shm/hoflow-test-XXXXXX";
      if (!::mkdtemp(name)) std::abort();
      path_ = name;
      Mem::RootPath::set(path_);
   }
   ~Scratch() {
      Mem::RootPath::set(before_);
      std::filesystem::remove_all(path_);
   }
   std::string const& path() const { return path_; }
   Mem::NaoRootPath table(std::string const& name = "a/table") const { return {handler(), name, false}; }

private:
   std::string before_;
   std::string path_;
};

using Test::Child;

/// One byte in each direction between two processes.
class Pipe {
public:
   Pipe() {
      if (::pipe(ends_) != 0) std::abort();
   }
   ~Pipe() {
      ::close(ends_[0]);
      ::close(ends_[1]);
   }
   void signal() {
      char const one = 1;
      if (::write(ends_[1], &one, 1) != 1) std::abort();
   }
   void await() {
      char got;
      while (::read(ends_[0], &got, 1) != 1) {
      }
   }

private:
   int ends_[2];
};

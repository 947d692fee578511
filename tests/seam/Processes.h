// SPDX-License-Identifier: Apache-2.0
// Child processes of a test: forked, told apart by a function, killed at the latest when the test ends; and
// the memory in which they report.
#pragma once

#include <fmt/format.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <new>
#include <stdexcept>
#include <string>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>
#include <type_traits>
#include <unistd.h>

namespace Test {

/// A T that parent and children share. T holds atomics and plain arrays only.
template <class T> class SharedReport {
public:
   SharedReport() {
      void* const at = ::mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
      if (at == MAP_FAILED) throw std::bad_alloc();
      report_ = new (at) T();
   }
   ~SharedReport() { ::munmap(report_, sizeof(T)); }
   SharedReport(SharedReport const&) = delete;
   SharedReport& operator=(SharedReport const&) = delete;
   T* operator->() const { return report_; }
   T& operator*() const { return *report_; }

private:
   T* report_;
};

/// The first complaint of any process.
struct Complaint {
   std::atomic<int> count{0};
   char text[400] = {};
   void say(std::string const& what) {
      if (count.fetch_add(1) == 0) std::snprintf(text, sizeof text, "%s", what.c_str());
   }
};

class Child {
public:
   /// Runs `body` in a child that ends with it, with what it returns, or with its parent.
   template <class Body> explicit Child(Body const& body) {
      std::fflush(nullptr);
      pid_ = ::fork();
      if (pid_ < 0) throw std::runtime_error("fork failed");
      if (pid_ != 0) return;
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      int status = 0;
      try {
         if constexpr (std::is_void_v<decltype(body())>)
            body();
         else
            status = body();
      } catch (std::exception const& e) {
         fmt::print(stderr, "child: {}\n", e.what());
         status = 3;
      }
      std::fflush(nullptr);
      ::_exit(status);
   }
   ~Child() { kill(); }
   Child(Child const&) = delete;
   Child& operator=(Child const&) = delete;

   pid_t pid() const { return pid_; }
   void signal(int number) const {
      if (pid_ > 0) ::kill(pid_, number);
   }
   void kill() {
      signal(SIGKILL);
      wait();
   }
   /// @return the exit status, or minus the signal
   int wait() {
      if (pid_ <= 0) return status_;
      int status = 0;
      while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
      }
      pid_ = 0;
      return status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
   }

private:
   pid_t pid_ = 0;
   int status_ = 0;
};

/// Seconds of a clock that never goes back.
inline double now() {
   return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}
inline void pause(double seconds) { std::this_thread::sleep_for(std::chrono::duration<double>(seconds)); }

} // namespace Test

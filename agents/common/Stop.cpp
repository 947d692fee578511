// SPDX-License-Identifier: Apache-2.0
// Stop.h by an event descriptor that the signal handler raises: a signal that comes just before the wait ends
// it, too.
#include "Stop.h"

#include "Lomi/TaskSchedulerRoot.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace Agents {
namespace {

std::atomic<bool> requested{false};
int raised = -1; // readable once a signal came
static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler may use it");

void onSignal(int) {
   int const error = errno;
   requested = true;
   std::uint64_t const one = 1;
   [[maybe_unused]] ssize_t const written = write(raised, &one, sizeof one);
   errno = error;
}

} // namespace

void listenToSignals() {
   if (raised < 0) raised = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
   struct sigaction action {};
   action.sa_handler = onSignal; // without SA_RESTART: any other wait is to end, too
   sigaction(SIGINT, &action, nullptr);
   sigaction(SIGTERM, &action, nullptr);
}

bool stopRequested() { return requested; }

void waitInLoop(int descriptor, double seconds) {
   using Clock = std::chrono::steady_clock;
   auto& root = Lomi::TaskSchedulerRoot::root();
   auto const end = Clock::now() + std::chrono::duration<double>(seconds < 0 ? 0 : seconds);
   // poll ignores descriptors below 0.
   pollfd watched[] = {{descriptor, POLLIN, 0}, {root.fd(), POLLIN, 0}, {raised, POLLIN, 0}};
   while (!requested) {
      double const left = std::chrono::duration<double>(end - Clock::now()).count();
      if (seconds >= 0 && left <= 0) return;
      int const timeout = seconds < 0 ? -1 : static_cast<int>(std::ceil(std::min(left, 3600.0) * 1000));
      if (poll(watched, std::size(watched), timeout) < 0) continue;
      if (watched[1].revents) root.dispatch();
      if (watched[0].revents) return;
   }
}

void turnLoop() { Lomi::TaskSchedulerRoot::root().dispatch(); }

} // namespace Agents

// SPDX-License-Identifier: Apache-2.0
// A bound on how often a stranger is served.
#pragma once

#include <algorithm>
#include <ctime>

namespace Rusk {

/// Seconds since the system's start.
inline double monotonicSeconds() {
   timespec now{};
   ::clock_gettime(CLOCK_MONOTONIC, &now);
   return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

/// So and so many things in a second, and a number of them at once.
class Allowance {
public:
   Allowance(double perSecond, double atOnce)
      : perSecond_(perSecond)
      , atOnce_(atOnce)
      , left_(atOnce)
      , since_(monotonicSeconds()) {}
   bool take() {
      double const now = monotonicSeconds();
      left_ = std::min(atOnce_, left_ + (now - since_) * perSecond_);
      since_ = now;
      if (left_ < 1) return false;
      left_ -= 1;
      return true;
   }

private:
   double perSecond_, atOnce_, left_, since_;
};

} // namespace Rusk

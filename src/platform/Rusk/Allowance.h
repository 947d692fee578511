// SPDX-License-Identifier: Apache-2.0
// A bound on how often a stranger is served.
#pragma once

#include "Lomi/Util.h"

#include <algorithm>

namespace Rusk {

/// So and so many things in a second, and a number of them at once.
class Allowance {
public:
   Allowance(double perSecond, double atOnce)
      : perSecond_(perSecond)
      , atOnce_(atOnce)
      , left_(atOnce)
      , since_(Lomi::monotonicTime()) {}
   bool take() {
      double const now = Lomi::monotonicTime();
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

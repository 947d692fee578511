// SPDX-License-Identifier: Apache-2.0
// `top` on a terminal: draws, waits for a key or for the next look, and leaves the terminal as it was. What
// is shown comes from TopLines.h.
#pragma once

#include "Pulse.h"

namespace Tool {

/// Until q, SIGINT or SIGTERM. @param interval seconds from look to look
/// @throws Failure if the terminal is of no known kind
void showTop(Pulses& pulses, double interval);

} // namespace Tool

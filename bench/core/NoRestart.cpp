// SPDX-License-Identifier: Apache-2.0
#include "core/Runs.h"
namespace Bench {
std::vector<std::string> const restartFigures{"adopt", "attach"};
void runRestart(Workload const&, Setting const&, Figures&) {}
}

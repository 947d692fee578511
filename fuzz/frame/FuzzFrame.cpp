// SPDX-License-Identifier: Apache-2.0
// libFuzzer program for the agents' frame parser: no read beyond the captured bytes, no undefined
// behaviour, and the same answer as the reference parser. ./dev fuzz runs it for a bounded time.
#include "Compare.h"

extern "C" int LLVMFuzzerTestOneInput(unsigned char const* data, std::size_t size) {
   FuzzFrame::compare(data, size);
   return 0;
}

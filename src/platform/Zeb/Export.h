// SPDX-License-Identifier: Apache-2.0
// Marks what the shared library shows to its users. Everything else is hidden (the build passes
// -fvisibility=hidden). Inline functions and templates need no mark.
#pragma once

#ifndef HOFLOW_EXPORT
#define HOFLOW_EXPORT __attribute__((visibility("default")))
#endif

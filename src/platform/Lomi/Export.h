// SPDX-License-Identifier: Apache-2.0
// Marks what the shared library shows to those who load it. Everything else stays hidden.
#pragma once

#define HOFLOW_EXPORT __attribute__((visibility("default")))

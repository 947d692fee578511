// SPDX-License-Identifier: Apache-2.0
// Zeb::Seconds: a time or a duration as an f64 of seconds. Times of rows count from 1970-01-01 00:00 UTC; an
// f64 keeps a quarter of a microsecond there. Comparison is that of f64, so a NaN is unequal to itself.
#pragma once

namespace Zeb {
using Seconds = double;
static_assert(sizeof(Seconds) == 8, "a time is 8 bytes in every record");
} // namespace Zeb

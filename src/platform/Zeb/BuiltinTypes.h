// SPDX-License-Identifier: Apache-2.0
// The registered types that belong to no record: numbers, times, texts.
#pragma once

#include "Zeb/Composite.h"

namespace Zeb {

extern HOFLOW_EXPORT Module const builtinModule;

inline constexpr ZebType typeU8{&builtinModule, 0}, typeU16{&builtinModule, 1}, typeU32{&builtinModule, 2},
    typeU64{&builtinModule, 3}, typeSeconds{&builtinModule, 4}, typeString{&builtinModule, 5};

template <> inline constexpr ZebType typeOf<unsigned char> = typeU8;
template <> inline constexpr ZebType typeOf<unsigned short> = typeU16;
template <> inline constexpr ZebType typeOf<unsigned int> = typeU32;
template <> inline constexpr ZebType typeOf<unsigned long> = typeU64;
template <> inline constexpr ZebType typeOf<unsigned long long> = typeU64;
template <> inline constexpr ZebType typeOf<Seconds> = typeSeconds;
template <> inline constexpr ZebType typeOf<String> = typeString;

} // namespace Zeb

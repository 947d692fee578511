// SPDX-License-Identifier: Apache-2.0
// The registered types of this folder. A VlanId is a u16 to the compiler, so its attributes name
// `typeVlanId`.
#pragma once

#include "Ovie/VlanTag.h"
#include "Zeb/Composite.h"

extern HOFLOW_EXPORT Zeb::Module const _VlanTag_28eef3c3_zebModule;
extern HOFLOW_EXPORT Zeb::Module const _VlanId_a7f886d5_zebModule;

namespace Ovie {
inline constexpr Zeb::ZebType typeVlanId{&_VlanId_a7f886d5_zebModule, 0};
}
template <> inline constexpr Zeb::ZebType Zeb::typeOf<Ovie::VlanTag>{&_VlanTag_28eef3c3_zebModule, 0};

// SPDX-License-Identifier: Apache-2.0
// The registered types of this folder.
#pragma once

#include "Nimbet/EthAddr.h"
#include "Nimbet/IntfId.h"
#include "Zeb/Composite.h"

extern HOFLOW_EXPORT Zeb::Module const _IntfId_2da7d77e_zebModule;
extern HOFLOW_EXPORT Zeb::Module const _EthAddr_8b9415d4_zebModule;

template <> inline constexpr Zeb::ZebType Zeb::typeOf<Nimbet::IntfId>{&_IntfId_2da7d77e_zebModule, 0};
template <> inline constexpr Zeb::ZebType Zeb::typeOf<Nimbet::EthAddr>{&_EthAddr_8b9415d4_zebModule, 0};

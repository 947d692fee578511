// SPDX-License-Identifier: Apache-2.0
// The modules of this folder. See Types.h.
#include "Nimbet/Types.h"

#include "Zeb/GenericIfImpl.h"

namespace {
using Zeb::GenericIfImpl::plainInfo;

constexpr Zeb::TypeInfo intfId = plainInfo<Nimbet::IntfId>("Nimbet::IntfId");
constexpr Zeb::TypeInfo const* intfIdTypes[] = {&intfId};

constexpr Zeb::TypeInfo ethAddr = plainInfo<Nimbet::EthAddr>("Nimbet::EthAddr");
constexpr Zeb::TypeInfo const* ethAddrTypes[] = {&ethAddr};
} // namespace

constinit Zeb::Module const _IntfId_2da7d77e_zebModule{"IntfId", intfIdTypes};
constinit Zeb::Module const _EthAddr_8b9415d4_zebModule{"EthAddr", ethAddrTypes};

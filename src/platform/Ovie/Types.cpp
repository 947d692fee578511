// SPDX-License-Identifier: Apache-2.0
// The modules of this folder. See Types.h.
#include "Ovie/Types.h"

#include "Zeb/GenericIfImpl.h"

namespace {
using Zeb::GenericIfImpl::plainInfo;

constexpr Zeb::TypeInfo vlanTag = plainInfo<Ovie::VlanTag>("Ovie::VlanTag");
constexpr Zeb::TypeInfo const* vlanTagTypes[] = {&vlanTag};

constexpr Zeb::TypeInfo vlanId = plainInfo<Ovie::VlanId>("Ovie::VlanId");
constexpr Zeb::TypeInfo const* vlanIdTypes[] = {&vlanId};
} // namespace

constinit Zeb::Module const _VlanTag_28eef3c3_zebModule{"VlanTag", vlanTagTypes};
constinit Zeb::Module const _VlanId_a7f886d5_zebModule{"VlanId", vlanIdTypes};

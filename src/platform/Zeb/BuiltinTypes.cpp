// SPDX-License-Identifier: Apache-2.0
// The module of numbers, times and texts. See BuiltinTypes.h.
#include "Zeb/BuiltinTypes.h"

#include "Zeb/GenericIfImpl.h"

#include <cstdint>

namespace Zeb {
namespace {

using GenericIfImpl::plainInfo;

constexpr TypeInfo infos[] = {
    plainInfo<std::uint8_t>("Zeb::U8"),   plainInfo<std::uint16_t>("Zeb::U16"),
    plainInfo<std::uint32_t>("Zeb::U32"), plainInfo<std::uint64_t>("Zeb::U64"),
    plainInfo<Seconds>("Zeb::Seconds"),   plainInfo<String>("Zeb::String"),
};
constexpr TypeInfo const* types[] = {&infos[0], &infos[1], &infos[2], &infos[3], &infos[4], &infos[5]};

} // namespace

constinit Module const builtinModule{"Zeb", types};

} // namespace Zeb

// SPDX-License-Identifier: Apache-2.0
// The list of the seven tables. See TableTypes.h.
#include "FlowTracking/TableTypes.h"

#include "FlowTracking/Tables.h"

#include <algorithm>
#include <array>

namespace FlowTracking {
namespace {
template <class... Ops> std::array<Mirak::TableType, sizeof...(Ops)> all() {
   return {Mirak::tableTypeOf<Ops>()...};
}
} // namespace

std::span<Mirak::TableType const> tableTypes() {
   static auto const types = all<HoIpFlowConfigOps, HoIp6FlowConfigOps, HoIpFlowStatusOps, HoIp6FlowStatusOps,
                                 HoIpFlowCounterOps, HoIp6FlowCounterOps, HosStateCounterOps>();
   return types;
}

Mirak::TableType const* tableTypeNamed(std::string_view valueType) {
   auto const types = tableTypes();
   auto const at = std::find_if(types.begin(), types.end(),
                                [=](Mirak::TableType const& type) { return type.valueType == valueType; });
   return at == types.end() ? nullptr : &*at;
}

} // namespace FlowTracking

// SPDX-License-Identifier: Apache-2.0
// The one instantiation of the table family for HoIpFlowStatus rows. See Tables.h.
#include "FlowTracking/Tables.h"

template class Mirak::MirakReader<FlowTracking::HoIpFlowStatusOps>;
template class Mirak::MirakWriter<FlowTracking::HoIpFlowStatusOps>;
template class Mirak::MirakMap<FlowTracking::HoIpFlowStatusOps>;

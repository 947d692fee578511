// SPDX-License-Identifier: Apache-2.0
// The one instantiation of the table family for HoIpFlowConfig rows. See Tables.h.
#include "FlowTracking/Tables.h"

template class Mirak::MirakReader<FlowTracking::HoIpFlowConfigOps>;
template class Mirak::MirakWriter<FlowTracking::HoIpFlowConfigOps>;
template class Mirak::MirakMap<FlowTracking::HoIpFlowConfigOps>;

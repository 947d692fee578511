// SPDX-License-Identifier: Apache-2.0
// The one instantiation of the table family for HoIpFlowCounter rows. See Tables.h.
#include "FlowTracking/Tables.h"

template class Mirak::MirakReader<FlowTracking::HoIpFlowCounterOps>;
template class Mirak::MirakWriter<FlowTracking::HoIpFlowCounterOps>;
template class Mirak::MirakMap<FlowTracking::HoIpFlowCounterOps>;

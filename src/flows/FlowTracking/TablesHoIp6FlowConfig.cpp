// SPDX-License-Identifier: Apache-2.0
// The one instantiation of the table family for HoIp6FlowConfig rows. See Tables.h.
#include "FlowTracking/Tables.h"

template class Mirak::MirakReader<FlowTracking::HoIp6FlowConfigOps>;
template class Mirak::MirakWriter<FlowTracking::HoIp6FlowConfigOps>;
template class Mirak::MirakMap<FlowTracking::HoIp6FlowConfigOps>;

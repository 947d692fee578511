// SPDX-License-Identifier: Apache-2.0
// The one instantiation of the table family for HosStateCounter rows. See Tables.h.
#include "FlowTracking/Tables.h"

template class Mirak::MirakReader<FlowTracking::HosStateCounterOps>;
template class Mirak::MirakWriter<FlowTracking::HosStateCounterOps>;
template class Mirak::MirakMap<FlowTracking::HosStateCounterOps>;

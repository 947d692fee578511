// SPDX-License-Identifier: Apache-2.0
// The table type under test: flow configuration rows without a change queue. The queue's cost is another
// question, asked elsewhere. Instantiated once, in HoflowTable.cpp, and called through the back end
// interface, as agents do.
#pragma once

#include "FlowTracking/Tables.h"
#include "core/Contender.h"

namespace FlowTracking {
using HoIpFlowConfigBenchOps = TablePolicy<HoIpFlowConfig, NoQueue>::Ops;
}

extern template class Mirak::MirakWriter<FlowTracking::HoIpFlowConfigBenchOps>;
extern template class Mirak::MirakReader<FlowTracking::HoIpFlowConfigBenchOps>;

namespace Bench {

using TableOps = FlowTracking::HoIpFlowConfigBenchOps;
using Table = Mirak::MirakInterface<TableOps>;

static_assert(sizeof(TableOps::Key) == sizeof(Key) && alignof(TableOps::Key) <= alignof(Key));
static_assert(sizeof(TableOps::Value) == sizeof(Row) && alignof(TableOps::Value) <= alignof(Row));

// Key and Row have the bytes of the real types (the whole build runs without type-based aliasing).
inline TableOps::Key const& tableKey(Key const& key) { return reinterpret_cast<TableOps::Key const&>(key); }
inline TableOps::Value const& tableRow(Row const& row) {
   return reinterpret_cast<TableOps::Value const&>(row);
}
inline TableOps::Value& tableRow(Row& row) { return reinterpret_cast<TableOps::Value&>(row); }

/// A writer on the table under `place`, open. Throws when it can't be opened.
std::unique_ptr<Table> openWriter(Place const& place, bool fixedSize = false);
/// A reader of the same, mapped read-only.
std::unique_ptr<Table> openReader(Place const& place);

} // namespace Bench

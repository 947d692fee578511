// SPDX-License-Identifier: Apache-2.0
// What `hoflow-offload --help` says around its options.
#pragma once

namespace Offload {

inline constexpr char const* description =
    R"(Holds the flows that hoflow-tracker chose, and counts their packets.

Stands for the hardware's side of offloading. It follows
   flowtracking/TYPE/hwOffload/config/hoIpFlowConfig
   flowtracking/TYPE/hwOffload/config/hoIp6FlowConfig
below the root, where hoflow-tracker writes the flows that it chose, and gives each
a slot as long as there are any. What came of a flow it says in
   flowtracking/TYPE/hwOffload/status/hoIpFlowStatus
   flowtracking/TYPE/hwOffload/status/hoIp6FlowStatus
"offloaded", or "rejected" if there was no slot; then the flow waits, and takes the
slot of one that is dropped. How many flows are in each state is kept in
   flowtracking/TYPE/hwOffload/counter/status/hosStateIpCounter
   flowtracking/TYPE/hwOffload/counter/status/hosStateIp6Counter
Packets and bytes of the flows that are held are counted in
   flowtracking/TYPE/hwOffload/counter/NAME/hoIpFlowCounter
   flowtracking/TYPE/hwOffload/counter/NAME/hoIp6FlowCounter
A row goes when its flow is dropped.

The packets are those of CAPTURE, a pcap or pcapng file, or standard input if it is
"-"; or, with -i, what comes and goes on a network interface.)";

inline constexpr char const* epilogue =
    R"(With a capture:
  It waits until hoflow-tracker has chosen all flows of its capture, counts, and
  ends. If flows are chosen later, it reads the capture again for these. With
  enough slots, and a tracker that chooses every flow, the counters are those of
  the whole capture, the same that the tracker alone would write.

With an interface:
  It counts a flow's packets from the moment on that it holds it, until it is
  stopped.

Running it again:
  It may be killed at any time. Started again, it holds the flows that it held, and
  counts on; rows that CAPTURE doesn't account for are put right.

Exit status:
  0 all counted; of an interface: stopped
  2 wrong use   3 can't open the capture, the interface or the tables
  4 the capture is damaged: packets up to the damage are counted; or a table is
  5 incomplete: interrupted, no room for the tables, link type not supported (no
    table is touched), output not written

Examples:
  hoflow-offload trace.pcap & hoflow-tracker trace.pcap
      the tracker chooses, the offload agent counts
  hoflow-offload -i eth0 --slots 1000
      hardware of 1,000 slots on live traffic)";

} // namespace Offload

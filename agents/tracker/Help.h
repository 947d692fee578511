// SPDX-License-Identifier: Apache-2.0
// What `hoflow-tracker --help` says around its options.
#pragma once

namespace Tracker {

inline constexpr char const* description =
    R"(Follows the flows of a packet capture, and writes them into shared tables.

Reads CAPTURE, a pcap or pcapng file, or standard input if it is "-"; or, with -i,
what comes and goes on a network interface. It does two things:

Counts: one row for each flow, with packets, bytes, and the times of its first and
its last packet. IPv4 and IPv6 flows go into two tables
   flowtracking/TYPE/hwOffload/counter/NAME/hoIpFlowCounter
   flowtracking/TYPE/hwOffload/counter/NAME/hoIp6FlowCounter
below the root. Other programs may read them at any time, also while they are
written; `hoflow dump TABLE` shows the rows. How many flows there are is kept in
   flowtracking/TYPE/hwOffload/counter/status/hosStateIpCounter
   flowtracking/TYPE/hwOffload/counter/status/hosStateIp6Counter

Chooses flows for offload: one row for each flow that had enough packets, with the
Ethernet addresses and VLAN tags of its first packet, in
   flowtracking/TYPE/hwOffload/config/hoIpFlowConfig
   flowtracking/TYPE/hwOffload/config/hoIp6FlowConfig
hoflow-offload takes them from there, and says in .../status what came of them.

Where hoflow-offload is running under the same TYPE and NAME, it counts, and the
tracker doesn't; with --no-count the tracker never does. On an interface it leaves
the counters to one that is started later, too.)";

inline constexpr char const* epilogue =
    R"(What is counted:
  A packet whose outermost network header, behind any number of VLAN tags, is IPv4
  or IPv6. Bytes are those of the IP packet, as its header says. A flow is the
  outermost VLAN id, the addresses, the protocol and the ports of TCP, UDP and
  SCTP; fragments have ports 0. Times are the capture's, in its order: if time
  goes backwards in it, a row's updateTime may lie before its createTime.

Running it again:
  The tables hold what CAPTURE gives, each packet counted once. A tracker that was
  stopped or killed is started again with the same command and goes on where it
  was. On a capture that is counted already nothing changes; on one that has grown
  the rest is added. Rows that CAPTURE doesn't account for (another capture
  was counted under this NAME) are removed: give each capture a NAME of its own.
  On an interface the rows that are there are kept, and counting goes on in them.

Exit status:
  0 all done; of an interface also: stopped
  2 wrong use   3 can't open the capture, the interface or the tables
  4 the capture is damaged: packets up to the damage are counted; or a table is
  5 incomplete: interrupted, no room for the tables, link type not supported (no
    table is touched), output not written

Examples:
  hoflow-tracker trace.pcap
      counts into .../counter/capture below /dev/shm/hoflow
  hoflow-tracker office.pcapng --name office -j
      counts into .../counter/office, prints one JSON object
  hoflow-offload trace.pcap & hoflow-tracker trace.pcap
      the tracker chooses, the offload agent counts
  hoflow-tracker -i eth0 --offload-after 10 --idle 30
      chooses flows of ten packets and more, drops them after 30 seconds of silence)";

} // namespace Tracker

// SPDX-License-Identifier: Apache-2.0
// The wake-up between a table's writer and those who follow it: what is said, and why nobody sleeps through a
// change. WriterRuskSm and TunnetAcceptSm speak for the writer, ReaderRuskSm for a reader. The queue itself,
// in Tessel, carries the changes; what is said here only saves the reader from asking all the time.
//
// Messages are of fixed size, one to a packet of a SOCK_SEQPACKET unix socket. Numbers are in the machine's
// order, since both ends run on it.
//
//    reader -> writer                              writer -> reader
//    HELLO   table, generation, name, sequence     WELCOME  the reader is known from here on
//    SLEEP   sequence                              ARMED    a change after `sequence` will be told by WAKE
//    REPORT  sequence                              WAKE     there is something after `sequence`
//
// `sequence` is the last one that the reader has taken in, 0 if none or unknown. Beside it stands how often
// the reader had to look at all slots again: the writer shows that to people. Each SLEEP is answered by WAKE
// exactly once, with or without ARMED in between, and the next SLEEP comes only after that WAKE.
//
// Why no wake-up is lost. The writer's side runs on one thread, the table's, and its events don't interrupt
// each other: the loop, critical tasks included, is never run between the two stores of W.
//
//    writer                                        reader
//    W   notify: the count is stored, `tail` is    R1  the walk finds its place at the count's end
//        the new sequence; then, if a reader is    R2  SLEEP(last) is sent; the reader begins to poll:
//        marked: WAKE to each of them, unmark          it looks at count and generation by a timer
//    E   SLEEP(s) is taken in: if tail is not s:   R3  ARMED is taken in: the polling stops
//        WAKE; else the reader is marked and       R4  WAKE is taken in: walk, then R1
//        ARMED is sent                             R5  the connection is lost: as awake as after R4, polling;
//    L   a message doesn't go out at once: the         connect, HELLO, walk, then R1
//        connection is closed
//
// Let W be a change that the walk before R2 didn't see, so that its sequence is above s = last.
//  1. W comes before E. Then E finds tail != s and answers WAKE.
//  2. W comes after E. Either E found tail != s for an earlier change, and WAKE was sent; or E marked
//     the reader, and W, or a change between E and W, finds the mark and sends WAKE.
//  3. E never comes, because the writer does not get back to its loop, or there is no writer, no
//     socket, no permission. Then ARMED doesn't come, and the polling finds W in the count.
//  4. The WAKE of 1 or 2 can't be sent (L), or the writer dies. Then the reader meets the end of the
//     connection, after all that was sent before it, and R5 walks and polls.
// In every case the reader walks after W. Three things carry the argument: the comparison in E (without
// it, 1 is lost), the mark that is set before the next change can be made, and that a WAKE is never
// dropped without the connection.
//
// A reader that takes in changes by polling while its SLEEP is under way sends no second one: the answer
// to the first comes, and the WAKE that follows it finds nothing new or something newer. A change of
// generation without a new sequence wakes nobody, because nothing was announced. A re-format in the same
// process closes all connections first.
//
// model/wake.pml is this page as a Promela model; model/run-wake proves it, and shows that it finds what
// goes wrong without one of the three, without the polling, and with some other mistakes.
//
// What either side does about the other:
//  - a reader that is stopped or slow: one WAKE lies in its buffer, it isn't marked any more, it costs
//    nothing. Another message that doesn't fit closes its connection;
//  - a reader that died: the loop sees the end of the connection; a WAKE before that finds it gone;
//  - a writer that died or restarts: readers poll, and connect again with growing pauses (ReaderRuskSm.h);
//  - anything that is not one of these messages in its place: the connection is closed and counted.
#pragma once

#include "Rusk/Sequence.h"

#include <cstddef>
#include <string>

namespace Rusk {

using Mem::u32;
using Mem::u64;

inline constexpr u32 protocolMagic = 0x4b535552; // "RUSK"
/// Goes up with each change of a message or its meaning. Both ends must have the same one.
inline constexpr u32 protocolVersion = 2;
inline constexpr std::size_t longestName = 63;

enum class MessageType : u32 { hello = 1, sleep = 2, report = 3, welcome = 4, armed = 5, wake = 6 };

/// A message in this process. Only `type` counts for WELCOME, ARMED and WAKE.
struct Message {
   MessageType type = MessageType::wake;
   Sequence sequence = 0;
   // HELLO only:
   u32 tableId = 0;
   u32 kestor = 0;
   std::string name; // see nameAllowed
   // HELLO, SLEEP and REPORT, as the sequence:
   u32 resyncs = 0;
};

/// Up to longestName printable ASCII characters, no blanks. May be empty.
bool nameAllowed(std::string const& name);

enum class Sent { done, full, gone };
/// Never waits and never raises SIGPIPE. `full`: nothing was sent.
Sent send(int socket, Message const& message);

enum class Received {
   message,
   nothing,     // none there
   closed,      // by the other end, in order or not
   bad,         // not a message: wrong size, type, magic, version, or an impossible field
   descriptors, // somebody tried to pass descriptors; the kernel has closed them
};
/// Never waits and takes no descriptors in. `message` is unspecified unless the result is `message`.
Received receive(int socket, Message& message);

} // namespace Rusk

// SPDX-License-Identifier: Apache-2.0
// How an agent is told to stop, and how it waits: in the thread's event loop, where the library's work is
// done, until what it waits for comes or a signal does. One per process.
#pragma once

namespace Agents {

/// From here on SIGINT and SIGTERM ask the program to stop, instead of ending it.
void listenToSignals();
/// Whether it was asked to.
bool stopRequested();

/// Runs the thread's event loop until `descriptor` can be read, `seconds` have passed, or the program is
/// asked to stop. What a task throws leaves it.
/// @param descriptor below 0: none
/// @param seconds below 0: no limit
void waitInLoop(int descriptor, double seconds);
/// Does what is due in the event loop, without waiting.
void turnLoop();

} // namespace Agents

// SPDX-License-Identifier: Apache-2.0
// Small helpers of the table family that concern a table's directory, and the switches of strict validation.
#pragma once

#include "Lomi/Trace.h"
#include "Mem/Paths.h"
#include "Mem/SharedWords.h"
#include "Mem/TableState.h"
#include "Parcel/KestorId.h"

#include <string>

namespace Mirak::Util {

using Mem::u32;
using Mem::u64;

using Mem::corruptionFileName;

/// Leaves a marker with the reason beside a table that was found damaged. Silent where it may not write: a
/// reader needs no more than read rights.
void writeCorruptionFile(Lomi::Platform::DebugHandler const& handler, std::string const& directory,
                         std::string const& error);
/// Tells damage of a table that was opened as generation `kestor` from its being formatted anew meanwhile:
/// the kestor file goes away before a format touches anything. @param reason where not null, left as the
/// marker if it is damage
bool isDamage(Lomi::Platform::DebugHandler const& handler, Mem::NaoRootPath const& rootPath,
              Parcel::KestorId kestor, std::string const* reason);
/// Whether this process leaves markers. True unless set; a program that only looks says false.
HOFLOW_EXPORT void corruptionMarkersIs(bool leave);
/// Removes the marker, if there is one.
void removeCorruptionFile(Mem::NaoRootPath const& rootPath);
/// Removes a file of the table's directory, if it is there.
void removeFile(Mem::NaoRootPath const& rootPath, char const* fileName);
/// @throws Lomi::CorruptionDetectedException unless the file is a regular one of at least `size` bytes
void validateFile(Lomi::Platform::DebugHandler const& handler, std::string const& fileName, u64 size);

/// An id for a table that has none. Low half: who makes the table. High half: a number of its own for each
/// table of the process, of whatever type. Never 0, "none".
Parcel::KestorId newKestorId();
/// The generation that stands in the slot or bucket file of that name, 0 if there is none to read.
u32 storedKestor(Mem::NaoRootPath const& rootPath, char const* fileName);

/// True on real hardware, false in a virtual machine.
bool runningOnPhysicalDut();
/// Whether a table that fails its first validation stops the start with an exception and goes into a core
/// file instead of being formatted. Off unless the process asks for it; acts on real hardware only.
bool strictValidation();
HOFLOW_EXPORT void strictValidationIs(bool strict);

} // namespace Mirak::Util

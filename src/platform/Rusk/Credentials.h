// SPDX-License-Identifier: Apache-2.0
// Who may be woken: those who may read the table's files, and nobody else. A reader asks the same of the
// process that it is about to rely on.
#pragma once

#include "Mem/Paths.h"
#include "Rusk/Socket.h"

#include <string>
#include <sys/types.h>
#include <vector>

namespace Rusk {

/// Who is at the other end: as of connect for a writer, as of listen for a reader.
struct Credentials {
   uid_t uid = 0;
   std::vector<gid_t> groups; // all of them
   static bool of(Socket const& socket, Credentials& credentials);
};

/// Whether that peer may read (or write) `file` in the table's directory, by owner, groups and mode of the
/// file and of the directories below the root. The root itself it has passed. This process's own user and the
/// superuser always may. An access list that grants more is not looked at.
enum class Right : unsigned { read = 4, write = 2 };
bool mayOpen(Credentials const& peer, Mem::NaoRootPath const& table, std::string const& file, Right right);

} // namespace Rusk

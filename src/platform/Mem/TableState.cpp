// SPDX-License-Identifier: Apache-2.0
#include "Mem/TableState.h"

#include "Parcel/KestorFile.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>

namespace Mem {
namespace {

bool look(Descriptor const& directory, char const* name, struct stat& status) {
   return ::fstatat(directory.get(), name, &status, AT_SYMLINK_NOFOLLOW) == 0;
}

bool isShortage(int error) { return error == EMFILE || error == ENFILE || error == ENOMEM; }

FileIdentity identity(struct stat const& status) {
   return {static_cast<u64>(status.st_dev), static_cast<u64>(status.st_ino)};
}

} // namespace

TableState tableState(Lomi::Platform::DebugHandler const& handler, NaoRootPath const& rootPath) {
   TableState state;
   Descriptor const directory = rootPath.openDirectory();
   if (!directory) {
      state.unseen = isShortage(errno);
      return state;
   }
   struct stat status {};
   if (look(directory, "slots", status)) state.slots = identity(status);
   if (look(directory, Parcel::KestorFile::KESTOR_NAME, status)) {
      state.kestorFile = identity(status);
      state.kestorTime =
          static_cast<u64>(status.st_mtim.tv_sec) * 1000000000u + static_cast<u64>(status.st_mtim.tv_nsec);
      int error;
      state.kestor = Parcel::KestorFile(handler, rootPath, false).read(error);
      state.unseen = isShortage(error);
   }
   state.damageMarked = look(directory, corruptionFileName, status);
   return state;
}

} // namespace Mem

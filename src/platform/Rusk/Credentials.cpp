// SPDX-License-Identifier: Apache-2.0
#include "Rusk/Credentials.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Rusk {

bool Credentials::of(Socket const& socket, Credentials& credentials) {
   ucred peer{};
   socklen_t size = sizeof(peer);
   if (::getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return false;
   credentials.uid = peer.uid;
   credentials.groups.assign(32, 0);
   while (true) {
      size = static_cast<socklen_t>(credentials.groups.size() * sizeof(gid_t));
      if (::getsockopt(socket.get(), SOL_SOCKET, SO_PEERGROUPS, credentials.groups.data(), &size) == 0) break;
      if (errno != ERANGE || size <= credentials.groups.size() * sizeof(gid_t)) { // none to be had
         size = 0;
         break;
      }
      credentials.groups.resize(size / sizeof(gid_t));
   }
   credentials.groups.resize(size / sizeof(gid_t));
   credentials.groups.push_back(peer.gid);
   return true;
}

namespace {

// As the kernel decides: the first class that the peer belongs to counts, even if a later one would grant
// more.
bool permits(struct stat const& status, Credentials const& peer, unsigned bits) {
   unsigned const mode = status.st_mode;
   if (peer.uid == status.st_uid) return (mode >> 6 & bits) == bits;
   if (std::find(peer.groups.begin(), peer.groups.end(), status.st_gid) != peer.groups.end())
      return (mode >> 3 & bits) == bits;
   return (mode & bits) == bits;
}

} // namespace

bool mayOpen(Credentials const& peer, Mem::NaoRootPath const& table, std::string const& file, Right right) {
   if (peer.uid == 0 || peer.uid == ::geteuid()) return true;
   Mem::Descriptor const root = table.openRoot();
   if (!root) return false;
   struct stat status {};
   auto const look = [&](std::string const& path) {
      return ::fstatat(root.get(), path.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
   };
   constexpr unsigned search = 1;
   std::string const& name = table.name();
   for (auto slash = name.find('/'); true; slash = name.find('/', slash + 1)) {
      if (!look(name.substr(0, slash)) || !S_ISDIR(status.st_mode) || !permits(status, peer, search))
         return false;
      if (slash == std::string::npos) break;
   }
   return look(name + "/" + file) && S_ISREG(status.st_mode) &&
          permits(status, peer, static_cast<unsigned>(right));
}

} // namespace Rusk

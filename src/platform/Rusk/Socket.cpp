// SPDX-License-Identifier: Apache-2.0
#include "Rusk/Socket.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#ifndef SO_PASSRIGHTS
#define SO_PASSRIGHTS 83 // since Linux 6.16; older ones refuse the option
#endif

namespace Rusk {

// Every socket of the process. The mutex is held across a fork, and from a descriptor's birth to its entry,
// so that the child finds the list whole.
struct SocketRegistry {
   std::mutex mutex;
   std::vector<Socket::Handle*> open;

   static SocketRegistry& only() {
      static SocketRegistry& registry = *new SocketRegistry;
      return registry;
   }
   SocketRegistry() {
      pthread_atfork([] { only().mutex.lock(); }, [] { only().mutex.unlock(); },
                     [] { only().closeInChild(); });
   }
   void closeInChild() {
      for (auto* handle : open) {
         ::close(handle->fd);
         handle->fd = -1;
      }
      open.clear();
      mutex.unlock();
   }
   template <class Birth> static Socket enter(Birth birth) {
      Socket socket;
      socket.handle_ = std::make_unique<Socket::Handle>();
      auto& registry = only();
      std::lock_guard const hold(registry.mutex);
      registry.open.push_back(socket.handle_.get());
      int const fd = birth();
      int const error = errno;
      if (fd < 0) registry.open.pop_back();
      socket.handle_->fd = fd;
      errno = error;
      return socket;
   }
   static void leave(Socket::Handle* handle) {
      auto& registry = only();
      std::lock_guard const hold(registry.mutex);
      std::erase(registry.open, handle);
      if (handle->fd >= 0) ::close(handle->fd);
   }
};

Socket::Handle::~Handle() {
   int const error = errno;
   if (fd >= 0) SocketRegistry::leave(this);
   errno = error;
}

Socket Socket::make() {
   Socket socket = SocketRegistry::enter(
       [] { return ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0); });
   // The last close of a descriptor that a stranger passes could wait, here, for as long as he likes.
   // Connections that are accepted take the setting over.
   int const off = 0;
   int const error = errno;
   if (socket) ::setsockopt(socket.get(), SOL_SOCKET, SO_PASSRIGHTS, &off, sizeof(off));
   errno = error;
   return socket;
}

Socket Socket::accept(Socket const& listener) {
   return SocketRegistry::enter(
       [&] { return ::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK); });
}

namespace {

// An address holds 107 bytes, and roots may be longer: the way leads through the open directory.
template <class Call>
int withAddress(Socket const& socket, Mem::NaoRootPath const& table, std::string const& name, Call call) {
   Mem::Descriptor const root = table.openRoot();
   if (!root) return errno;
   std::string path = fmt::format("/proc/self/fd/{}", root.get());
   if (::access(path.c_str(), F_OK) != 0) path = table.root();
   path.append(1, '/').append(name);
   sockaddr_un address{};
   address.sun_family = AF_UNIX;
   if (path.size() >= sizeof(address.sun_path)) return ENAMETOOLONG;
   std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
   int result;
   do {
      result = call(socket.get(), reinterpret_cast<sockaddr const*>(&address), socklen_t{sizeof(address)});
   } while (result != 0 && errno == EINTR);
   return result == 0 ? 0 : errno;
}

} // namespace

int connectInRoot(Socket const& socket, Mem::NaoRootPath const& table, std::string const& name) {
   return withAddress(socket, table, name, ::connect);
}

int bindInRoot(Socket const& socket, Mem::NaoRootPath const& table, std::string const& name) {
   return withAddress(socket, table, name, ::bind);
}

} // namespace Rusk

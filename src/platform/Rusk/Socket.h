// SPDX-License-Identifier: Apache-2.0
// The descriptors of the wake-up. A forked child closes all of its parent's: otherwise a connection would
// seem to live as long as the last child of a dead process, and nobody would learn of the death. No call here
// waits.
#pragma once

#include "Mem/Paths.h"

#include <memory>
#include <string>

namespace Rusk {

/// A SOCK_SEQPACKET unix socket, closed at its end. Close on exec, non-blocking, refuses passed descriptors
/// where the kernel can. Calls that fail leave an empty one, with errno set.
class Socket {
public:
   Socket() = default;
   Socket(Socket&&) noexcept = default;
   Socket& operator=(Socket&&) noexcept = default;
   ~Socket() = default;

   static Socket make();
   /// A waiting connection of a listening socket.
   static Socket accept(Socket const& listener);

   int get() const { return handle_ ? handle_->fd : -1; } // -1 in a forked child
   explicit operator bool() const { return get() >= 0; }
   void reset() { handle_.reset(); }

private:
   struct Handle {
      Handle() = default;
      Handle(Handle const&) = delete;
      Handle& operator=(Handle const&) = delete;
      ~Handle();
      int fd = -1;
   };
   friend struct SocketRegistry;
   std::unique_ptr<Handle> handle_;
};

/// Connects to, or binds to, a name in the root that `table` lies below. The root's path may have any length
/// where /proc is mounted, and about 90 bytes elsewhere. The errno, 0 if done.
int connectInRoot(Socket const& socket, Mem::NaoRootPath const& table, std::string const& name);
int bindInRoot(Socket const& socket, Mem::NaoRootPath const& table, std::string const& name);

} // namespace Rusk

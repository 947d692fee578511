// SPDX-License-Identifier: Apache-2.0
// Redis as a peer of the wake-up: its server, started for this run alone on a unix socket, and the few lines
// of its protocol (RESP) that publishing and subscribing take. Everything is in memory, nothing is saved.
//
// Misleading: a message is gone if nobody listens, and there is no table; a third process, the server, stands
// between the two, and on two cores it shares one with one of them.
#pragma once

#include "follow/Sides.h"

#include <string>

namespace Bench {

/// One connection, blocking. Ends with the object.
class RedisClient {
public:
   /// @throws std::runtime_error if nobody listens there
   explicit RedisClient(std::string const& socketPath);
   ~RedisClient();
   RedisClient(RedisClient const&) = delete;
   void send(std::string const& bytes) const;
   /// Exactly as many bytes.
   std::string receive(std::size_t length) const;
   /// Sends a command and compares the answer. @throws std::runtime_error if it is another one
   void ask(std::string const& command, std::string const& answer) const;

private:
   int socket_;
};

/// A command, or an answer of several strings, as it stands on the wire.
std::string resp(std::initializer_list<std::string_view> strings);

class RedisServer {
public:
   /// Starts it and waits until it answers. @throws std::runtime_error if there is none
   RedisServer();
   std::string socketPath() const { return folder_.path() + "/s"; }

private:
   Folder folder_;
   std::unique_ptr<Process> process_;
};

} // namespace Bench

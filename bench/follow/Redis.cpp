// SPDX-License-Identifier: Apache-2.0
// See Redis.h.
#include "follow/Redis.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace Bench {

RedisClient::RedisClient(std::string const& socketPath)
   : socket_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
   sockaddr_un address{};
   address.sun_family = AF_UNIX;
   std::strncpy(address.sun_path, socketPath.c_str(), sizeof address.sun_path - 1);
   if (::connect(socket_, reinterpret_cast<sockaddr const*>(&address), sizeof address) == 0) return;
   ::close(socket_);
   throw std::runtime_error("can't connect to redis-server");
}

RedisClient::~RedisClient() { ::close(socket_); }

void RedisClient::send(std::string const& bytes) const {
   if (::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(bytes.size()))
      throw std::runtime_error("redis-server takes nothing");
}

std::string RedisClient::receive(std::size_t length) const {
   std::string bytes(length, '\0');
   std::size_t have = 0;
   while (have < length) {
      ssize_t const got = ::recv(socket_, bytes.data() + have, length - have, 0);
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) throw std::runtime_error("redis-server has gone");
      have += static_cast<std::size_t>(got);
   }
   return bytes;
}

void RedisClient::ask(std::string const& command, std::string const& answer) const {
   send(command);
   if (std::string const got = receive(answer.size()); got != answer)
      throw std::runtime_error("redis-server answers: " + got);
}

std::string resp(std::initializer_list<std::string_view> strings) {
   std::string text = "*" + std::to_string(strings.size()) + "\r\n";
   for (auto const& each : strings)
      text.append("$").append(std::to_string(each.size())).append("\r\n").append(each).append("\r\n");
   return text;
}

RedisServer::RedisServer() {
   std::string const socket = socketPath(), directory = folder_.path();
   process_ = std::make_unique<Process>([&] {
      int const nowhere = ::open("/dev/null", O_RDWR | O_CLOEXEC);
      for (int fd = 0; fd <= 2; ++fd) ::dup2(nowhere, fd);
      // Debian's redis-tools has the same program under another name; its first argument says what it is to
      // be.
      for (char const* program : {"redis-server", "redis-check-rdb"})
         ::execlp(program, "redis-server", "--port", "0", "--unixsocket", socket.c_str(), "--save", "",
                  "--appendonly", "no", "--daemonize", "no", "--dir", directory.c_str(), nullptr);
   });
   for (int tries = 0; tries < 1000; ++tries) {
      ::usleep(10'000);
      process_->mustLive("redis-server"); // not installed, as a rule
      try {
         RedisClient(socket).ask(resp({"PING"}), "+PONG\r\n");
         return;
      } catch (std::runtime_error const&) {
         // Not yet.
      }
   }
   throw std::runtime_error("redis-server doesn't answer");
}

} // namespace Bench

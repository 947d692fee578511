// SPDX-License-Identifier: Apache-2.0
#include "Rusk/Protocol.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/socket.h>

namespace Rusk {
namespace {

struct Signal {
   u32 type;
   u32 spare;
};
struct Position {
   u32 type;
   u32 resyncs;
   u64 sequence;
};
struct Hello {
   u32 type;
   u32 magic;
   u32 version;
   u32 tableId;
   u32 kestor;
   u32 resyncs;
   u64 sequence;
   char name[longestName + 1]; // ends with a NUL and is filled up with NULs
};
static_assert(sizeof(Signal) == 8 && sizeof(Position) == 16 && sizeof(Hello) == 96,
              "part of the protocol: sizes tell the messages apart");

union Packet {
   u32 type;
   Signal signal;
   Position position;
   Hello hello;
};

std::size_t sizeOf(MessageType type) {
   switch (type) {
   case MessageType::hello:
      return sizeof(Hello);
   case MessageType::sleep:
   case MessageType::report:
      return sizeof(Position);
   case MessageType::welcome:
   case MessageType::armed:
   case MessageType::wake:
      return sizeof(Signal);
   }
   return 0;
}

bool readHello(Hello const& hello, Message& message) {
   if (hello.magic != protocolMagic || hello.version != protocolVersion) return false;
   std::size_t const length = ::strnlen(hello.name, sizeof(hello.name));
   if (length == sizeof(hello.name)) return false;
   if (std::any_of(hello.name + length, hello.name + sizeof(hello.name), [](char c) { return c != 0; }))
      return false;
   message.tableId = hello.tableId;
   message.kestor = hello.kestor;
   message.sequence = hello.sequence;
   message.resyncs = hello.resyncs;
   message.name.assign(hello.name, length);
   return message.sequence != noSequence && nameAllowed(message.name);
}

} // namespace

bool nameAllowed(std::string const& name) {
   return name.size() <= longestName &&
          std::all_of(name.begin(), name.end(), [](char c) { return c > ' ' && c < 0x7f; });
}

Sent send(int socket, Message const& message) {
   Packet packet{};
   std::memset(&packet, 0, sizeof(packet));
   packet.type = static_cast<u32>(message.type);
   if (message.type == MessageType::hello) {
      packet.hello.magic = protocolMagic;
      packet.hello.version = protocolVersion;
      packet.hello.tableId = message.tableId;
      packet.hello.kestor = message.kestor;
      packet.hello.sequence = message.sequence;
      packet.hello.resyncs = message.resyncs;
      std::memcpy(packet.hello.name, message.name.data(), std::min(message.name.size(), longestName));
   } else if (sizeOf(message.type) == sizeof(Position)) {
      packet.position.sequence = message.sequence;
      packet.position.resyncs = message.resyncs;
   }
   while (true) {
      if (::send(socket, &packet, sizeOf(message.type), MSG_DONTWAIT | MSG_NOSIGNAL) >= 0) return Sent::done;
      if (errno == EINTR) continue;
      return errno == EAGAIN || errno == ENOBUFS || errno == ENOMEM ? Sent::full : Sent::gone;
   }
}

Received receive(int socket, Message& message) {
   Packet packet;
   iovec part{&packet, sizeof(packet)};
   msghdr header{};
   header.msg_iov = &part;
   header.msg_iovlen = 1;
   ssize_t got;
   do {
      got = ::recvmsg(socket, &header, MSG_DONTWAIT | MSG_TRUNC);
   } while (got < 0 && errno == EINTR);
   if (got < 0) return errno == EAGAIN ? Received::nothing : Received::closed;
   if (header.msg_flags & MSG_CTRUNC) return Received::descriptors;
   if (got == 0) return Received::closed; // an empty packet looks the same
   if (got < static_cast<ssize_t>(sizeof(packet.type))) return Received::bad;
   message.type = static_cast<MessageType>(packet.type);
   if (static_cast<std::size_t>(got) != sizeOf(message.type)) return Received::bad;
   if (message.type == MessageType::hello)
      return readHello(packet.hello, message) ? Received::message : Received::bad;
   if (got == sizeof(Position)) {
      message.sequence = packet.position.sequence;
      message.resyncs = packet.position.resyncs;
      if (message.sequence == noSequence) return Received::bad;
   } else if (packet.signal.spare) {
      return Received::bad;
   }
   return Received::message;
}

} // namespace Rusk

// SPDX-License-Identifier: Apache-2.0
// The messages over a socket pair: each survives the way, everything else is refused, nothing waits.
#include "Support.h"

#include <random>

using namespace RuskTest;
using Rusk::Message;
using Rusk::MessageType;
using Rusk::Received;
using Rusk::Sent;

namespace {

struct Pair {
   Pair() {
      if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) std::abort();
   }
   ~Pair() {
      closeFar();
      ::close(ends[0]);
   }
   void closeFar() {
      if (ends[1] >= 0) ::close(std::exchange(ends[1], -1));
   }
   Received receiveAfter(std::string const& bytes) {
      EXPECT_EQ(::send(ends[1], bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
      return Rusk::receive(ends[0], message);
   }
   int ends[2];
   Message message;
};

} // namespace

TEST(Protocol, NothingElseIsAMessage) {
   Pair pair;
   std::string const good = hello(1);
   ASSERT_EQ(pair.receiveAfter(good), Received::message);
   // Each size that isn't the type's, short and long.
   for (std::string const& whole : {good, position(2, 5), position(3, 5), position(4, 0).substr(0, 8)})
      for (std::size_t size = 1; size < 300; ++size) {
         std::string bytes = whole;
         bytes.resize(size, '\0');
         EXPECT_EQ(pair.receiveAfter(bytes) == Received::message, size == whole.size()) << size;
      }
   EXPECT_EQ(pair.receiveAfter(std::string(60000, 'x')), Received::bad);
   auto const spoiled = [&](std::size_t at, char byte) {
      std::string bytes = good;
      bytes[at] = byte;
      return pair.receiveAfter(bytes);
   };
   for (std::size_t const at : {0, 4, 8}) EXPECT_EQ(spoiled(at, 'x'), Received::bad) << at;
   for (char const byte : {' ', '\n', '\x7f', '\xff', '\0'}) EXPECT_EQ(spoiled(33, byte), Received::bad);
   EXPECT_EQ(spoiled(95, 'x'), Received::bad); // after the name's end
   EXPECT_EQ(pair.receiveAfter(good.substr(0, 32) + std::string(64, 'n')), Received::bad);
   EXPECT_EQ(pair.receiveAfter(position(2, Rusk::noSequence)), Received::bad);
   std::mt19937_64 random(20260101);
   for (int i = 0; i < 20000; ++i) {
      std::string bytes(1 + random() % 120, '\0');
      for (auto& byte : bytes) byte = static_cast<char>(random());
      EXPECT_EQ(pair.receiveAfter(bytes), Received::bad);
   }
}

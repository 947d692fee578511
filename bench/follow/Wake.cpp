// SPDX-License-Identifier: Apache-2.0
// From a change to the call in another process that slept. The pattern is the same for all: the other side
// sleeps in the kernel on the other core; a moment later this side makes a change and takes the time before
// it; the other side takes the time as soon as it has the change in its hands, and proves by a sum which one
// it was.
#include "follow/Follow.h"
#include "follow/Redis.h"

#include <algorithm>
#include <sys/socket.h>

namespace Bench {
namespace {

constexpr double pauseNs = 200'000; // after it the other side sleeps for sure

double now() { return std::chrono::duration<double, std::nano>(Clock::now().time_since_epoch()).count(); }

/// What the sleeper says.
struct Heard {
   std::atomic<u64> count{0};
   std::atomic<bool> ready{false};
   double at = 0;
   u64 sum = 0;

   void say(Row const& row) {
      at = now();
      sum = rowSum(row);
      count.fetch_add(1, std::memory_order_release);
   }
};

class Measurement {
public:
   Measurement(Workload const& load, Setting const& setting, Figures& figures)
      : load_(load)
      , setting_(setting)
      , figures_(figures) {}

   /// @param sleeper the other side, which never returns
   /// @param settle called until it is true: the other side is about to sleep
   /// @param change makes the change that the row says
   template <class Sleeper, class Settle, class Change>
   void run(char const* who, Sleeper sleeper, Settle settle, Change change) {
      Common<Heard> heard;
      Process other([&] {
         pinTo(setting_.otherCore);
         sleeper(*heard);
      });
      std::vector<double> us;
      await(
          who, &other, [&] { return heard->ready.load(); }, [] { ::usleep(1000); });
      for (u64 n = 0; n < setting_.wakes; ++n) {
         await(who, &other, settle, [] {});
         for (double const end = now() + pauseNs; now() < end;) __builtin_ia32_pause();
         Row const row = rowOf(load_.inserts[n % load_.rows].key, n, 3);
         double const start = now();
         change(row);
         await(
             who, &other, [&] { return heard->count.load(std::memory_order_acquire) > n; },
             [] { __builtin_ia32_pause(); });
         if (heard->sum != rowSum(row)) wrong(who, "the sleeper was told of another change");
         us.push_back((heard->at - start) / 1000);
      }
      std::sort(us.begin(), us.end());
      FigureKey key{nameOf(load_.family), load_.rows, who, "median us"};
      figures_.add(key, us[us.size() / 2]);
      key.operation = "p99 us";
      figures_.add(key, us[us.size() - 1 - us.size() / 100]);
   }

   /// @param Sleeper a Follower or a ShadowFollower
   template <class Sleeper> void ourTable(char const* who) {
      Folder const folder;
      Place const place{folder.path(), load_.rows, setting_.core};
      auto const writer = openFollowed(place);
      for (Row const& row : load_.inserts) writer->write(tableRow(row), true);
      auto& loop = Lomi::TaskSchedulerRoot::root();
      auto const sleeper = [&](Heard& heard) {
         Sleeper follower(place);
         auto& there = Lomi::TaskSchedulerRoot::root();
         while (!follower.quiesced()) there.run(0.1);
         follower.onChange = [&](Row const& row) { heard.say(row); };
         heard.ready = true;
         for (;;) there.run(-1);
      };
      run(
          who, sleeper,
          [&] {
             loop.dispatch();
             return writer->queue().ruskSm.sleepingReaders() == 1;
          },
          [&](Row const& row) { writer->write(tableRow(row), true); });
      writer->detach(false);
   }

   void socketPair() {
      int ends[2];
      if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
         throw std::runtime_error("no socket pair");
      Common<Row> row; // the byte says no more than that there is something
      auto const sleeper = [&](Heard& heard) {
         heard.ready = true;
         for (char byte; ::recv(ends[1], &byte, 1, 0) == 1;) heard.say(*row);
      };
      run(
          "socket pair", sleeper, [] { return true; },
          [&](Row const& changed) {
             *row = changed;
             if (::send(ends[0], "x", 1, MSG_NOSIGNAL) != 1) wrong("socket pair", "can't send");
          });
      for (int const end : ends) ::close(end);
   }

   void redis(RedisServer const& server) {
      RedisClient const publisher(server.socketPath());
      std::string_view const channel = "changes";
      auto const sleeper = [&](Heard& heard) {
         RedisClient const subscriber(server.socketPath());
         subscriber.ask(resp({"SUBSCRIBE", channel}), "*3\r\n$9\r\nsubscribe\r\n$7\r\nchanges\r\n:1\r\n");
         heard.ready = true;
         std::string const blank(sizeof(Row), ' ');
         std::size_t const length = resp({"message", channel, blank}).size();
         for (Row row;;) {
            std::string const message = subscriber.receive(length);
            std::memcpy(&row, message.data() + length - 2 - sizeof row, sizeof row);
            heard.say(row);
         }
      };
      bool asked = false;
      run(
          "redis", sleeper,
          [&] { // the answer to the change before
             if (std::exchange(asked, false) && publisher.receive(4) != ":1\r\n")
                wrong("redis", "nobody subscribes");
             return true;
          },
          [&](Row const& row) {
             publisher.send(resp({"PUBLISH", channel, {reinterpret_cast<char const*>(&row), sizeof row}}));
             asked = true;
          });
   }

private:
   Workload const& load_;
   Setting const& setting_;
   Figures& figures_;
};

std::unique_ptr<RedisServer> startRedis() {
#ifdef BENCH_PEERS
   try {
      return std::make_unique<RedisServer>();
   } catch (std::runtime_error const& error) {
      std::fprintf(stderr, "%s: Redis is left out (Debian's package redis-tools has it)\n", error.what());
   }
#endif
   return nullptr;
}

} // namespace

void runWake(Workload const& load, Setting const& setting, Figures& figures) {
   if (setting.otherCore < 0) return;
   auto const server = startRedis();
   Measurement measurement(load, setting, figures);
   for (int time = 0; time < setting.repetitions; ++time) {
      measurement.ourTable<Follower>("hoflow");
      measurement.ourTable<ShadowFollower>("hoflow shadow");
      measurement.socketPair();
      if (server) measurement.redis(*server);
   }
}

} // namespace Bench

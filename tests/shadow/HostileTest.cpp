// SPDX-License-Identifier: Apache-2.0
// Clients that do in any callback whatever a collection lets them do: mount, let go, detach, attach, pause,
// throw, read. A quiet moment later the copy is the table, and what was told adds up to it.
#include "../tessel/Dice.h"
#include "Support.h"

#include <limits>

namespace Test {
namespace {

class Hostile {
public:
   explicit Hostile(u64 seed)
      : dice_(seed)
      , small_(2 + dice_.below(12)) {
      std::filesystem::remove_all(testRoot() + "/shadowed");
      Mem::ParcelWrapper::moveAlways = dice_.oneIn(4);
      writer_ = newWriter("shadowed");
      for (u32 n = 1 + dice_.below(3); n > 0; --n) {
         clients_.push_back(std::make_unique<Client>("shadowed"));
         Client& client = *clients_.back();
         client.inCall = [this, &client](std::string const&) {
            if (quietly_ || depth_ > 3 || !dice_.oneIn(12)) return;
            ++depth_;
            struct Up {
               u32& depth;
               ~Up() { --depth; }
            } const up{depth_};
            anything(client);
         };
      }
   }
   ~Hostile() {
      quietly_ = true;
      for (auto& client : clients_) client->controlDetach();
      clients_.clear();
      settle();
      Mem::ParcelWrapper::moveAlways = false;
   }
   std::string play() {
      for (u32 step = 300; step > 0; --step) {
         caught([&] {
            switch (dice_.below(12)) {
            case 0:
               if (dice_.oneIn(6)) restart(dice_.oneIn(2));
               break;
            case 1:
            case 2:
               anything(*clients_[dice_.below(static_cast<u32>(clients_.size()))]);
               break;
            case 3:
            case 4:
               change();
               break;
            default:
               loop().run(0);
            }
         });
      }
      quietly_ = true;
      for (auto& client : clients_) {
         if (client->initialized() && client->mountStatus() == Mem::MountStatus::flushing)
            client->controlDetach();
         client->yieldTimeIs(0.01);
         if (!client->initialized()) client->init(shadowSettings(dice_.oneIn(2)));
      }
      return rest(clients_, *writer_, [&] { caught([&] { loop().run(0.02); }); });
   }
   u64 thrown = 0, acts = 0;

private:
   struct Thrown {};
   template <class Act> void caught(Act act) {
      try {
         act();
      } catch (Thrown const&) {
         ++thrown;
      } catch (Lomi::InvalidInitializeException const&) {
      } catch (Mirak::TableReformattedException const&) {
      }
   }
   void change() {
      for (u32 n = 1 + dice_.below(60); n > 0; --n) {
         Key const key = keyOf(dice_.below(100));
         R removed;
         if (dice_.oneIn(3))
            writer_->remove(key, removed);
         else
            writer_->write(R::make(key, ++generation_), true);
      }
   }
   void restart(bool damaged) {
      writer_.reset();
      if (damaged) interrupt("shadowed");
      writer_ = newWriter("shadowed");
   }
   void anything(Client& client) {
      ++acts;
      switch (dice_.below(14)) {
      case 0:
         client.init(shadowSettings(dice_.oneIn(2)));
         break;
      case 1:
         client.controlDetach();
         break;
      case 2:
         if (client.notify.notifyLive) client.notifyingIs(dice_.oneIn(2));
         break;
      case 3: {
         double const times[] = {std::numeric_limits<double>::quiet_NaN(), -1, 0, 0.001};
         client.yieldTimeIs(times[dice_.below(4)]);
         break;
      }
      case 4:
         if (client.mounter_) client.attach(Mirak::MirakMapBase::eventTryAttach_);
         break;
      case 5:
         if (client.mountStatus() != Mem::MountStatus::flushing) client.detach(false);
         break;
      case 6:
         client.detach(true);
         break;
      case 7:
         client.tryAttach();
         break;
      case 8:
         throw Thrown();
      case 9:
         if (depth_ == 0) loop().run(0);
         break;
      case 10:
         change();
         break;
      case 11: {
         client.readerCounters();
         client.owner();
         bool found = false;
         R row;
         client.safeLookup(keyOf(dice_.below(100)), found, &row);
         Content const all = contentOf(client.back());
         break;
      }
      case 12:
         client.controlDetach();
         client.init(shadowSettings(dice_.oneIn(2)));
         break;
      case 13:
         if (dice_.oneIn(4)) restart(dice_.oneIn(2));
         break;
      }
   }

   Dice dice_;
   SmallTables small_;
   std::unique_ptr<Writer> writer_;
   std::vector<std::unique_ptr<Client>> clients_;
   bool quietly_ = false;
   u32 depth_ = 0, generation_ = 0;
};

TEST(ShadowHostility, AQuietMomentLaterEachCopyIsTheTable) {
   Silence const silence;
   u64 const first = setting("HOFLOW_SHADOW_SEED", 1);
   u64 thrown = 0, acts = 0;
   for (u64 seed = first; seed < first + setting("HOFLOW_SHADOW_RUNS", 60 / slow); ++seed) {
      Hostile history(seed);
      ASSERT_EQ(history.play(), "") << "HOFLOW_SHADOW_SEED=" << seed;
      thrown += history.thrown;
      acts += history.acts;
   }
   fmt::print("acts {} thrown {}\n", acts, thrown);
}

} // namespace
} // namespace Test

// SPDX-License-Identifier: Apache-2.0
// The tables of chosen flows, which a tracker writes, as the offload agent follows them: by key. It hears of
// each flow that comes, changes or goes. When a copy has caught up with its table, at the start or after the
// tracker formatted it anew, it hears so, and compares all that it has with all that is there: a change that
// nobody told, in whatever way, is made good then.
#pragma once

#include "FlowTracking/HoFlowConfigEntity.h"
#include "TableMark.h"

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace Offload {

/// What one family's agent does with the wishes.
template <class Key> class Wishful {
public:
   virtual ~Wishful() = default;
   /// A flow came or changed (`wanted`), or is gone.
   virtual void wantedIs(Key const& key, bool wanted) = 0;
   /// The copy has caught up. `contains` tells whether a flow is wanted.
   virtual void caughtUp(std::function<bool(Key const&)> const& contains) = 0;
};

class Wishes {
   using Config = FlowTracking::HoFlowConfig;

public:
   /// Follows the tables of TYPE from here on; those it tells outlive it.
   Wishes(std::string const& type, Wishful<FlowTracking::HoIpFlowKey>& ip4,
          Wishful<FlowTracking::HoIp6FlowKey>& ip6);
   ~Wishes();
   Wishes(Wishes const&) = delete;
   Wishes& operator=(Wishes const&) = delete;

   /// Whether the copies hold what is in the tables. True if there are none yet.
   bool followed() const;
   /// Whether all flows of a capture are in the tables, and all were told. A table that doesn't say of itself
   /// how far it is, counts as complete once it has rows and no process writes it any more.
   /// @param flows4, flows6 what the clients know
   bool complete(std::uint64_t flows4, std::uint64_t flows6) const;

private:
   using Control = Zeb::Ptr<ZebMirak::CollectionControl>;
   using Listener = Zeb::Ptr<Zeb::PtrInterface::NotifieeConst>;

   template <class Collection, class Client>
   void follow(Zeb::AttributeId attribute, Collection& collection, Control const& control, Client& client);

   std::string const path_;
   Zeb::Ptr<Zeb::Dir> tree_ = Zeb::Dir::DirIs("");
   Zeb::Ptr<Config> config_ = FlowTracking::hoFlowConfigFactory("config");
   std::vector<Listener> ofEntity_;
   std::vector<std::pair<Control, Listener>> ofControls_;
};

} // namespace Offload

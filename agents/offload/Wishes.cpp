// SPDX-License-Identifier: Apache-2.0
// Wishes.h by a keyshadow of each collection.
#include "Wishes.h"

#include "Tables.h"
#include "Zeb/NotifieeList.h"

namespace Offload {
namespace {

using ZebParcel::MountStatus;

/// Calls a function for each change of what it listens to.
class Told final : public Zeb::PtrInterface::NotifieeConst {
public:
   using Function = std::function<void(Zeb::AttributeId, void const*)>;

   static Zeb::Ptr<NotifieeConst> make(Function function) {
      Zeb::Ptr<Told> listener(new Told(std::move(function)), Zeb::Ptr<Told>::adopt);
      listener->hasNotificationActiveIs(true);
      return listener;
   }
   void onAttribute(Zeb::AttributeId attribute, void const* key) override { function_(attribute, key); }

private:
   explicit Told(Function function)
      : function_(std::move(function)) {}

   Function const function_;
};

template <class Collection> bool contains(Collection const& collection, typename Collection::Key const& key) {
   bool found = false;
   collection.safeLookup(key, found, nullptr);
   return found;
}

bool caughtUp(ZebMirak::CollectionControl const& control) {
   return control.mountStatus() == MountStatus::synchronised;
}

} // namespace

template <class Collection, class Client>
void Wishes::follow(Zeb::AttributeId attribute, Collection& collection, Control const& control,
                    Client& client) {
   using Key = typename Collection::Key;
   ofEntity_.push_back(Told::make([attribute, &collection, &client](Zeb::AttributeId of, void const* key) {
      if (of != attribute || !key) return;
      auto const& changed = *static_cast<Key const*>(key);
      client.wantedIs(changed, contains(collection, changed));
   }));
   config_->newMember(ofEntity_.back());
   auto const* const watched = control.get();
   auto const all = Told::make([watched, &collection, &client](Zeb::AttributeId of, void const*) {
      if (of != ZebParcel::CollectionControl::mountStatusAttribute || !caughtUp(*watched)) return;
      // What the first sweep brings isn't told row by row.
      for (typename Collection::IteratorConst at(&collection); at.valid(); at.advance())
         client.wantedIs(at.row().key(), true);
      client.caughtUp([&collection](Key const& key) { return contains(collection, key); });
   });
   ofControls_.emplace_back(control, all);
   control->newMember(all);
   Mirak::MapDescriptor descriptor(Agents::flowTableSize);
   descriptor.type = Mirak::MirakType::keyshadow;
   control->init(descriptor);
}

Wishes::Wishes(std::string const& type, Wishful<FlowTracking::HoIpFlowKey>& ip4,
               Wishful<FlowTracking::HoIp6FlowKey>& ip6)
   : path_(Config::mountPath(type).view()) {
   tree_->entityIs(Config::mountPath(type), config_);
   follow(258, config_->hoIpFlowConfig(), config_->hoIpFlowConfigControl(), ip4);
   follow(260, config_->hoIp6FlowConfig(), config_->hoIp6FlowConfigControl(), ip6);
}

// Those who are told may be gone when the collections end.
Wishes::~Wishes() {
   for (auto const& [control, listener] : ofControls_) control->deleteMember(listener);
   for (auto const& listener : ofEntity_) config_->deleteMember(listener);
}

bool Wishes::followed() const {
   auto const is = [](auto const& collection, auto const& control) {
      return !collection.exists() || caughtUp(*control);
   };
   return is(config_->hoIpFlowConfig(), config_->hoIpFlowConfigControl()) &&
          is(config_->hoIp6FlowConfig(), config_->hoIp6FlowConfigControl());
}

bool Wishes::complete(std::uint64_t flows4, std::uint64_t flows6) const {
   using Agents::TableMark;
   std::string const path4 = path_ + "/hoIpFlowConfig", path6 = path_ + "/hoIp6FlowConfig";
   auto const facts4 = Agents::tableFacts(path4), facts6 = Agents::tableFacts(path6);
   if (!facts4 || !facts6) return false;
   if (facts4->mark == TableMark::nothing && facts6->mark == TableMark::nothing) {
      if (facts4->rows + facts6->rows == 0 || Agents::writerOf(path4) || Agents::writerOf(path6))
         return false;
   } else if (facts4->mark != TableMark::complete || facts6->mark != TableMark::complete) {
      return false;
   }
   return followed() && flows4 == facts4->rows && flows6 == facts6->rows;
}

} // namespace Offload

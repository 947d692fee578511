// SPDX-License-Identifier: Apache-2.0
// Text forms of states, directions, keys and records. What a record's form holds stands in Attributes.h.
#include "FlowTracking/Attributes.h"
#include "Zeb/Strep.h"

#include <algorithm>
#include <iterator>

namespace FlowTracking {
namespace {

constexpr std::string_view directionNames[] = {"unspecified", "ingress", "egress"};

constexpr auto isWord = [](char c) { return Zeb::Impl::isLetter(c) || Zeb::Impl::isDigit(c); };

} // namespace

HoFlowState sequenceToValue(Zeb::String::IteratorConst& it, Zeb::String::IteratorConst const& end,
                            HoFlowState*) {
   std::string expected = "a state:";
   for (auto const name : hoFlowStateNames) (expected += ' ') += name;
   return Zeb::printedValue<HoFlowState>(it, end, expected + ", or the number of another one", isWord,
                                         hoFlowStateFromText);
}

Zeb::String valueToStrep(TrafficDirection const& direction) {
   auto const number = static_cast<unsigned>(direction);
   return number < std::size(directionNames) ? Zeb::String(directionNames[number])
                                             : Zeb::String(std::to_string(number));
}

TrafficDirection sequenceToValue(Zeb::String::IteratorConst& it, Zeb::String::IteratorConst const& end,
                                 TrafficDirection*) {
   auto const parse = [](std::string_view text) -> std::optional<TrafficDirection> {
      auto const* const name = std::find(std::begin(directionNames), std::end(directionNames), text);
      if (name != std::end(directionNames))
         return static_cast<TrafficDirection>(name - std::begin(directionNames));
      auto const number = Zeb::Impl::wholeNumber<std::uint8_t>(text);
      return number ? std::optional(static_cast<TrafficDirection>(*number)) : std::nullopt;
   };
   return Zeb::printedValue<TrafficDirection>(
       it, end, "unspecified, ingress, egress, or the number of another direction", isWord, parse);
}

Zeb::String valueToStrep(IpFlowKey const& value) { return Zeb::compositeToStrep(value); }
Zeb::String valueToStrep(Ip6FlowKey const& value) { return Zeb::compositeToStrep(value); }
Zeb::String valueToStrep(HoIpFlowKey const& value) { return Zeb::compositeToStrep(value); }
Zeb::String valueToStrep(HoIp6FlowKey const& value) { return Zeb::compositeToStrep(value); }
Zeb::String valueToStrep(HosStateCounterKey const& value) { return Zeb::compositeToStrep(value); }
Zeb::String valueToStrep(HoIpFlowConfig const& value) { return Zeb::compositeToStrep(value); }
Zeb::String valueToStrep(HoIp6FlowConfig const& value) { return Zeb::compositeToStrep(value); }
Zeb::String valueToStrep(HoIpFlowStatus const& value) { return Zeb::compositeToStrep(value); }
Zeb::String valueToStrep(HoIp6FlowStatus const& value) { return Zeb::compositeToStrep(value); }
Zeb::String valueToStrep(HoIpFlowCounter const& value) { return Zeb::compositeToStrep(value); }
Zeb::String valueToStrep(HoIp6FlowCounter const& value) { return Zeb::compositeToStrep(value); }
Zeb::String valueToStrep(HosStateCounterEntry const& value) { return Zeb::compositeToStrep(value); }

using Place = Zeb::String::IteratorConst;

template <class Addr>
BasicIpFlowKey<Addr>::BasicIpFlowKey(Place& it, Place const& end)
   : BasicIpFlowKey(Zeb::compositeFromStrep<BasicIpFlowKey>(it, end)) {}
template <class FlowKey>
BasicHoFlowKey<FlowKey>::BasicHoFlowKey(Place& it, Place const& end)
   : BasicHoFlowKey(Zeb::compositeFromStrep<BasicHoFlowKey>(it, end)) {}
template <class Key>
BasicHoFlowConfig<Key>::BasicHoFlowConfig(Place& it, Place const& end)
   : BasicHoFlowConfig(Zeb::compositeFromStrep<BasicHoFlowConfig>(it, end)) {}
template <class Key>
BasicHoFlowStatus<Key>::BasicHoFlowStatus(Place& it, Place const& end)
   : BasicHoFlowStatus(Zeb::compositeFromStrep<BasicHoFlowStatus>(it, end)) {}
template <class Key>
BasicHoFlowCounter<Key>::BasicHoFlowCounter(Place& it, Place const& end)
   : BasicHoFlowCounter(Zeb::compositeFromStrep<BasicHoFlowCounter>(it, end)) {}
HosStateCounterKey::HosStateCounterKey(Place& it, Place const& end)
   : HosStateCounterKey(Zeb::compositeFromStrep<HosStateCounterKey>(it, end)) {}
HosStateCounterEntry::HosStateCounterEntry(Place& it, Place const& end)
   : HosStateCounterEntry(Zeb::compositeFromStrep<HosStateCounterEntry>(it, end)) {}

template BasicIpFlowKey<Ip::IpAddr>::BasicIpFlowKey(Place&, Place const&);
template BasicIpFlowKey<Ip::Ip6Addr>::BasicIpFlowKey(Place&, Place const&);
template BasicHoFlowKey<IpFlowKey>::BasicHoFlowKey(Place&, Place const&);
template BasicHoFlowKey<Ip6FlowKey>::BasicHoFlowKey(Place&, Place const&);
template BasicHoFlowConfig<HoIpFlowKey>::BasicHoFlowConfig(Place&, Place const&);
template BasicHoFlowConfig<HoIp6FlowKey>::BasicHoFlowConfig(Place&, Place const&);
template BasicHoFlowStatus<HoIpFlowKey>::BasicHoFlowStatus(Place&, Place const&);
template BasicHoFlowStatus<HoIp6FlowKey>::BasicHoFlowStatus(Place&, Place const&);
template BasicHoFlowCounter<IpFlowKey>::BasicHoFlowCounter(Place&, Place const&);
template BasicHoFlowCounter<Ip6FlowKey>::BasicHoFlowCounter(Place&, Place const&);

} // namespace FlowTracking

// SPDX-License-Identifier: Apache-2.0
// The field tables of the seven records and the three kinds of keys. See Schema.h.
#include "Schema.h"

#include "FlowTracking/HoFlowConfig.h"
#include "FlowTracking/HoFlowCounter.h"
#include "FlowTracking/HoFlowStatus.h"
#include "FlowTracking/HosStateCounterEntry.h"
#include "FlowTracking/Tables.h"

#include <algorithm>
#include <limits>
#include <strings.h>
#include <type_traits>

namespace Tool {

using namespace FlowTracking;

namespace {

template <class T> constexpr CellType typeOf() {
   if constexpr (std::is_same_v<T, Zeb::Seconds>)
      return {Kind::time};
   else if constexpr (std::is_integral_v<T>)
      return {Kind::number, std::numeric_limits<T>::max()};
   else if constexpr (std::is_same_v<T, Ip::IpAddr>)
      return {Kind::address4};
   else if constexpr (std::is_same_v<T, Ip::Ip6Addr>)
      return {Kind::address6};
   else if constexpr (std::is_same_v<T, Ip::Protocol>)
      return {Kind::protocol};
   else if constexpr (std::is_same_v<T, TrafficDirection>)
      return {Kind::direction};
   else if constexpr (std::is_same_v<T, HoFlowState>)
      return {Kind::state};
   else if constexpr (std::is_same_v<T, Nimbet::IntfId>)
      return {Kind::interface};
   else if constexpr (std::is_same_v<T, Nimbet::EthAddr>)
      return {Kind::ethernet};
   else
      return std::enable_if_t<std::is_same_v<T, Ovie::VlanTag>, CellType>{Kind::vlanTag};
}

enum class Role { value, key, keyMustGive, keyAgain };

/// `get` reads the field of a Row.
template <class Row, auto get> Field field(std::string_view name, Role role = Role::value) {
   using T = std::remove_cvref_t<decltype(get(std::declval<Row const&>()))>;
   auto const cell = [](void const* row) -> Cell {
      T const value = get(*static_cast<Row const*>(row));
      if constexpr (std::is_integral_v<T>)
         return Cell(uint64_t{value});
      else
         return Cell(value);
   };
   return {name, typeOf<T>(), role != Role::value, role == Role::keyAgain, role == Role::keyMustGive, cell};
}

/// The fields of the flow that `flow` finds in a row.
template <class Row, auto flow> void addFlow(std::vector<Field>& f) {
   f.push_back(field<Row, [](Row const& r) { return flow(r).vrfId(); }>("vrfId", Role::key));
   f.push_back(field<Row, [](Row const& r) { return flow(r).vlanId(); }>("vlanId", Role::key));
   f.push_back(field<Row, [](Row const& r) { return flow(r).srcAddr(); }>("srcAddr", Role::keyMustGive));
   f.push_back(field<Row, [](Row const& r) { return flow(r).dstAddr(); }>("dstAddr", Role::keyMustGive));
   f.push_back(
       field<Row, [](Row const& r) { return flow(r).ipProtocol(); }>("ipProtocol", Role::keyMustGive));
   f.push_back(field<Row, [](Row const& r) { return flow(r).ipProtocolNumber(); }>("ipProtocolNumber",
                                                                                   Role::keyAgain));
   f.push_back(field<Row, [](Row const& r) { return flow(r).srcPort(); }>("srcPort", Role::key));
   f.push_back(field<Row, [](Row const& r) { return flow(r).dstPort(); }>("dstPort", Role::key));
   f.push_back(field<Row, [](Row const& r) { return flow(r).direction(); }>("direction", Role::key));
}

/// A key that is a flow, one that is a flow on an interface, and one that is a state.
template <class Row> void addKey(std::vector<Field>& f) {
   if constexpr (requires(Row const& r) { r.fwkKey().ipFlowKey(); }) {
      addFlow<Row, [](Row const& r) { return r.fwkKey().ipFlowKey(); }>(f);
      f.push_back(field<Row, [](Row const& r) { return r.fwkKey().intfId(); }>("intfId", Role::key));
   } else if constexpr (requires(Row const& r) { r.fwkKey().srcAddr(); }) {
      addFlow<Row, [](Row const& r) { return r.fwkKey(); }>(f);
   } else {
      f.push_back(field<Row, [](Row const& r) { return r.fwkKey().key(); }>("key", Role::keyMustGive));
   }
}

template <class Row> void addTimes(std::vector<Field>& f) {
   f.push_back(field<Row, [](Row const& r) { return r.createTime(); }>("createTime"));
   f.push_back(field<Row, [](Row const& r) { return r.updateTime(); }>("updateTime"));
}

/// What stands behind the key, in the record's order. Which record it is shows in what it has.
template <class Row> void addValue(std::vector<Field>& f) {
   if constexpr (requires(Row const& r) { r.packets(); }) {
      f.push_back(field<Row, [](Row const& r) { return r.intfId(); }>("intfId"));
      f.push_back(field<Row, [](Row const& r) { return r.packets(); }>("packets"));
      f.push_back(field<Row, [](Row const& r) { return r.bytes(); }>("bytes"));
      addTimes<Row>(f);
      f.push_back(field<Row, [](Row const& r) { return r.hosEntries(); }>("hosEntries"));
   } else if constexpr (requires(Row const& r) { r.hoFlowState(); }) {
      f.push_back(field<Row, [](Row const& r) { return r.hoFlowState(); }>("hoFlowState"));
      addTimes<Row>(f);
   } else if constexpr (requires(Row const& r) { r.srcEthAddr(); }) {
      addTimes<Row>(f);
      f.push_back(field<Row, [](Row const& r) { return r.srcEthAddr(); }>("srcEthAddr"));
      f.push_back(field<Row, [](Row const& r) { return r.dstEthAddr(); }>("dstEthAddr"));
      f.push_back(field<Row, [](Row const& r) { return r.dot1qVlanTag(); }>("dot1qVlanTag"));
      f.push_back(field<Row, [](Row const& r) { return r.dot1qCustomerVlanTag(); }>("dot1qCustomerVlanTag"));
      f.push_back(field<Row, [](Row const& r) { return r.cachedIntfId(); }>("cachedIntfId"));
   } else {
      f.push_back(field<Row, [](Row const& r) { return r.hoFlows(); }>("hoFlows"));
   }
}

constexpr std::pair<std::string_view, std::string_view> shortForms[] = {
    {"src", "srcAddr"},      {"dst", "dstAddr"},   {"proto", "ipProtocol"}, {"protocol", "ipProtocol"},
    {"sport", "srcPort"},    {"dport", "dstPort"}, {"vlan", "vlanId"},      {"vrf", "vrfId"},
    {"dir", "direction"},    {"intf", "intfId"},   {"interface", "intfId"}, {"state", "key"},
    {"state", "hoFlowState"}};

void appendName(fmt::memory_buffer& out, std::string_view name) {
   out.push_back('"');
   out.append(name.data(), name.data() + name.size());
   out.push_back('"');
   out.push_back(':');
}

} // namespace

bool equalIgnoringCase(std::string_view a, std::string_view b) {
   return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

Field const* Schema::find(std::string_view word) const {
   auto const named = [this](std::string_view name) -> Field const* {
      auto const at = std::find_if(fields.begin(), fields.end(),
                                   [&](Field const& f) { return equalIgnoringCase(f.name, name); });
      return at == fields.end() ? nullptr : &*at;
   };
   // "key.srcAddr" is how the field is called in the rows' JSON.
   if (word.size() > 4 && equalIgnoringCase(word.substr(0, 4), "key.")) word.remove_prefix(4);
   if (auto const* field = named(word)) return field;
   for (auto const& [shortForm, name] : shortForms)
      if (equalIgnoringCase(shortForm, word))
         if (auto const* field = named(name)) return field;
   return nullptr;
}

bool Schema::isFlow() const { return fields.front().name == "vrfId"; }

template <class Row> Schema const& schemaOf() {
   static Schema const schema = [] {
      Schema made{Row::typeName, {}};
      addKey<Row>(made.fields);
      addValue<Row>(made.fields);
      return made;
   }();
   return schema;
}

template Schema const& schemaOf<HoIpFlowConfigOps::Value>();
template Schema const& schemaOf<HoIp6FlowConfigOps::Value>();
template Schema const& schemaOf<HoIpFlowStatusOps::Value>();
template Schema const& schemaOf<HoIp6FlowStatusOps::Value>();
template Schema const& schemaOf<HoIpFlowCounterOps::Value>();
template Schema const& schemaOf<HoIp6FlowCounterOps::Value>();
template Schema const& schemaOf<HosStateCounterOps::Value>();

namespace {

template <class Key> Key flowKeyOf(std::span<Cell const> c) {
   using Addr = typename Key::Address;
   auto const number = [&](unsigned i) { return std::get<uint64_t>(c[i]); };
   return Key(static_cast<VrfId>(number(0)), static_cast<VlanId>(number(1)), std::get<Addr>(c[2]),
              std::get<Addr>(c[3]), std::get<Ip::Protocol>(c[4]), static_cast<std::uint16_t>(number(5)),
              static_cast<std::uint16_t>(number(6)), std::get<TrafficDirection>(c[7]));
}

} // namespace

template <class Key> Key keyOf(std::span<Cell const> cells) {
   if constexpr (requires(Key const& k) { k.ipFlowKey(); }) {
      using Flow = std::remove_cvref_t<decltype(std::declval<Key const&>().ipFlowKey())>;
      return Key(flowKeyOf<Flow>(cells), std::get<Nimbet::IntfId>(cells[8]));
   } else if constexpr (requires(Key const& k) { k.srcAddr(); }) {
      return flowKeyOf<Key>(cells);
   } else {
      return Key(std::get<HoFlowState>(cells[0]));
   }
}

template HoIpFlowKey keyOf<HoIpFlowKey>(std::span<Cell const>);
template HoIp6FlowKey keyOf<HoIp6FlowKey>(std::span<Cell const>);
template IpFlowKey keyOf<IpFlowKey>(std::span<Cell const>);
template Ip6FlowKey keyOf<Ip6FlowKey>(std::span<Cell const>);
template HosStateCounterKey keyOf<HosStateCounterKey>(std::span<Cell const>);

void appendJsonRow(fmt::memory_buffer& out, Schema const& schema, void const* row) {
   out.push_back('{');
   appendName(out, "key");
   out.push_back('{');
   bool inKey = true, first = true;
   for (Field const& field : schema.fields) {
      if (inKey && !field.inKey) {
         inKey = false;
         out.push_back('}');
      }
      if (!first) out.push_back(',');
      first = false;
      appendName(out, field.name);
      appendJson(out, field.get(row));
   }
   out.push_back('}');
}

} // namespace Tool

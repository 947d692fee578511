// SPDX-License-Identifier: Apache-2.0
// Texts, JSON and parsing of single values. See Cell.h.
#include "Cell.h"

#include "FlowTracking/Types.h"
#include "Json.h"
#include "Lomi/Exception.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <ctime>
#include <iterator>
#include <limits>
#include <vector>

namespace Tool {

using FlowTracking::HoFlowState;
using FlowTracking::TrafficDirection;

namespace {

template <class... Fs> struct Overloaded : Fs... { using Fs::operator()...; };
template <class... Fs> Overloaded(Fs...) -> Overloaded<Fs...>;

void append(fmt::memory_buffer& out, std::string_view text) {
   out.append(text.data(), text.data() + text.size());
}

void appendNumber(fmt::memory_buffer& out, uint64_t number) {
   fmt::format_int const digits(number);
   append(out, {digits.data(), digits.size()});
}

constexpr double firstYear = -62135596800.0, afterLastYear = 253402300800.0;

/// "2025-03-01T12:00:00". Rows of one dump often share their seconds.
std::string_view wholeSecond(std::time_t at) {
   static std::time_t known = 0;
   static std::string text = "1970-01-01T00:00:00";
   if (at == known) return text;
   std::tm utc{};
   gmtime_r(&at, &utc);
   text = fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}", utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday,
                      utc.tm_hour, utc.tm_min, utc.tm_sec);
   known = at;
   return text;
}

void appendTime(fmt::memory_buffer& out, Zeb::Seconds seconds) {
   if (!(seconds >= firstYear && seconds < afterLastYear - 1)) {
      fmt::format_to(std::back_inserter(out), "{}", seconds);
      return;
   }
   double const whole = std::floor(seconds);
   auto at = static_cast<std::time_t>(whole);
   auto micros = std::lround((seconds - whole) * 1e6);
   if (micros == 1000000) {
      ++at;
      micros = 0;
   }
   append(out, wholeSecond(at));
   char fraction[] = ".000000Z";
   for (char* digit = fraction + 6; micros; micros /= 10) *digit-- = static_cast<char>('0' + micros % 10);
   append(out, {fraction, 8});
}

void appendAddress(fmt::memory_buffer& out, Ip::IpAddr address) {
   auto const bytes = address.bytes();
   for (unsigned i = 0; i < 4; ++i) {
      if (i) out.push_back('.');
      appendNumber(out, bytes[i]);
   }
}

void appendTag(fmt::memory_buffer& out, Ovie::VlanTag const& tag) {
   if (!tag.isSet()) return append(out, "none");
   auto to = std::back_inserter(out);
   fmt::format_to(to, "{}", tag.vlanId());
   if (tag.priority()) fmt::format_to(to, ",priority={}", tag.priority());
   if (tag.dropEligible()) append(out, ",drop-eligible");
   if (tag.protocolId() != 0x8100) fmt::format_to(to, ",protocol={:#06x}", tag.protocolId());
   if (tag.depth()) fmt::format_to(to, ",depth={}", tag.depth());
}

void appendDirection(fmt::memory_buffer& out, TrafficDirection direction) {
   switch (direction) {
   case TrafficDirection::unspecified:
      return append(out, "-");
   case TrafficDirection::ingress:
      return append(out, "ingress");
   case TrafficDirection::egress:
      return append(out, "egress");
   }
   fmt::format_to(std::back_inserter(out), "{}", static_cast<unsigned>(direction));
}

void quoted(fmt::memory_buffer& out, std::string_view text) {
   out.push_back('"');
   append(out, text);
   out.push_back('"');
}

template <class T> bool parseNumber(std::string_view text, T& value) {
   auto const read = std::from_chars(text.data(), text.data() + text.size(), value);
   return !text.empty() && read.ec == std::errc() && read.ptr == text.data() + text.size();
}

/// Seconds since 1970, or "2025-03-01[T12:00[:00[.25]][Z]]".
bool parseTime(std::string_view text, Zeb::Seconds& seconds) {
   if (parseNumber(text, seconds)) return std::isfinite(seconds);
   std::string const copy(text);
   std::tm utc{};
   char const* rest = strptime(copy.c_str(), "%Y-%m-%d", &utc);
   if (!rest) return false;
   if (*rest == 'T') {
      char const* const clock = strptime(rest + 1, "%H:%M:%S", &utc);
      rest = clock ? clock : strptime(rest + 1, "%H:%M", &utc);
      if (!rest) return false;
   }
   double fraction = 0;
   if (*rest == '.') {
      char const* const end = copy.c_str() + copy.size();
      char const* const stop = end[-1] == 'Z' ? end - 1 : end;
      if (!parseNumber("0" + std::string(rest, stop), fraction)) return false;
      rest = stop;
   }
   if (*rest == 'Z') ++rest;
   if (*rest) return false;
   seconds = static_cast<double>(timegm(&utc)) + fraction;
   return true;
}

bool parseEthernet(std::string_view text, Nimbet::EthAddr& address) {
   std::array<std::uint8_t, 6> bytes{};
   if (text.size() != 17) return false;
   for (unsigned i = 0; i < 6; ++i) {
      auto const* const at = text.data() + 3 * i;
      auto const read = std::from_chars(at, at + 2, bytes[i], 16);
      if (read.ec != std::errc() || read.ptr != at + 2 || (i < 5 && at[2] != ':')) return false;
   }
   address = Nimbet::EthAddr(bytes);
   return true;
}

bool parseTag(std::string_view text, Ovie::VlanTag& tag) {
   if (text == "none") return tag = Ovie::VlanTag(), true;
   std::uint16_t id = 0;
   if (!parseNumber(text, id) || id > 4095) return false;
   return tag = Ovie::VlanTag(id), true;
}

bool parseInterface(std::string_view text, Nimbet::IntfId& intfId) {
   if (text == "none") return intfId = Nimbet::IntfId(), true;
   std::uint32_t number = 0;
   if (parseNumber(text, number)) return intfId = Nimbet::IntfId(number), true;
   intfId = Nimbet::IntfId();
   intfId.handleInitialized(Zeb::String(text));
   return intfId.str() == Zeb::String(text);
}

bool parseDirection(std::string_view text, TrafficDirection& direction) {
   std::uint8_t number = 0;
   if (text == "-" || text == "unspecified")
      direction = TrafficDirection::unspecified;
   else if (text == "ingress")
      direction = TrafficDirection::ingress;
   else if (text == "egress")
      direction = TrafficDirection::egress;
   else if (parseNumber(text, number))
      direction = static_cast<TrafficDirection>(number);
   else
      return false;
   return true;
}

template <class T> constexpr CellType shown(Kind kind, Zeb::ZebType type = Zeb::typeOf<T>) {
   uint64_t max = 0;
   if constexpr (std::is_integral_v<T>) max = std::numeric_limits<T>::max();
   auto const read = [](void const* value) -> Cell {
      T copy;
      std::memcpy(static_cast<void*>(&copy), value, sizeof copy);
      if constexpr (std::is_integral_v<T>)
         return uint64_t{copy};
      else
         return copy;
   };
   auto const assign = [](Cell const& cell, void* to) {
      if constexpr (std::is_integral_v<T>)
         *static_cast<T*>(to) = static_cast<T>(std::get<uint64_t>(cell));
      else
         *static_cast<T*>(to) = std::get<T>(cell);
   };
   return {type, kind, max, read, assign};
}

constexpr CellType shownTypes[] = {
    shown<std::uint8_t>(Kind::number),
    shown<std::uint16_t>(Kind::number),
    shown<Ovie::VlanId>(Kind::number, Ovie::typeVlanId),
    shown<std::uint32_t>(Kind::number),
    shown<uint64_t>(Kind::number),
    shown<Zeb::Seconds>(Kind::time),
    shown<Ip::IpAddr>(Kind::address4),
    shown<Ip::Ip6Addr>(Kind::address6),
    shown<Ip::Protocol>(Kind::protocol),
    shown<TrafficDirection>(Kind::direction),
    shown<HoFlowState>(Kind::state),
    shown<Nimbet::IntfId>(Kind::interface),
    shown<Nimbet::EthAddr>(Kind::ethernet),
    shown<Ovie::VlanTag>(Kind::vlanTag),
};

/// The text form of a value that its type's parser accepts.
bool parseOther(Zeb::ZebType type, std::string_view text, Cell& cell) {
   Zeb::String const strep(text);
   Zeb::ValueMethods const& values = *type.info().implementation.values;
   std::vector<std::max_align_t> memory(type.info().size / sizeof(std::max_align_t) + 1);
   values.genericIfConstruct(memory.data(), nullptr);
   bool good = true;
   try {
      values.genericIfStrepToValue(memory.data(), strep, type);
   } catch (Lomi::Exception const&) {
      good = false;
   }
   values.genericIfDestruct(memory.data());
   cell = strep;
   return good;
}

template <class T, class Parsed> bool take(Parsed const& parsed, Cell& cell) {
   if (!parsed) return false;
   cell = T(*parsed);
   return true;
}

template <class T, class Parse> bool take(Parse parse, std::string_view text, Cell& cell) {
   T value{};
   if (!parse(text, value)) return false;
   cell = value;
   return true;
}

} // namespace

CellType cellTypeOf(Zeb::ZebType type) {
   auto const* const at = std::find_if(std::begin(shownTypes), std::end(shownTypes),
                                       [=](CellType const& shown) { return shown.type == type; });
   return at == std::end(shownTypes) ? CellType{type, Kind::other} : *at;
}

Cell cellOf(CellType const& type, void const* value) {
   if (type.read) return type.read(value);
   return type.type.info().implementation.values->genericIfStrRep(value, type.type);
}

void assignCell(CellType const& type, Cell const& cell, void* to) {
   if (type.assign) return type.assign(cell, to);
   type.type.info().implementation.values->genericIfStrepToValue(to, std::get<Zeb::String>(cell), type.type);
}

void appendText(fmt::memory_buffer& out, Cell const& cell) {
   std::visit(Overloaded{[&](uint64_t n) { appendNumber(out, n); },
                         [&](Zeb::Seconds t) { appendTime(out, t); },
                         [&](Ip::IpAddr a) { appendAddress(out, a); },
                         [&](Ip::Protocol p) { append(out, Ip::protocolText(p)); },
                         [&](TrafficDirection d) { appendDirection(out, d); },
                         [&](HoFlowState s) { append(out, FlowTracking::hoFlowStateText(s)); },
                         [&](Ovie::VlanTag const& tag) { appendTag(out, tag); },
                         [&](Zeb::String const& strep) { append(out, strep.view()); },
                         [&](auto const& other) { append(out, other.str().view()); }},
              cell);
}

std::string cellText(Cell const& cell) {
   fmt::memory_buffer out;
   appendText(out, cell);
   return fmt::to_string(out);
}

void appendJson(fmt::memory_buffer& out, Cell const& cell) {
   auto to = std::back_inserter(out);
   std::visit(Overloaded{[&](uint64_t n) { appendNumber(out, n); },
                         [&](Zeb::Seconds t) {
                            // JSON has no word for what is no number.
                            if (!std::isfinite(t)) return append(out, "null");
                            out.push_back('"');
                            appendTime(out, t);
                            out.push_back('"');
                         },
                         [&](Ip::IpAddr a) {
                            out.push_back('"');
                            appendAddress(out, a);
                            out.push_back('"');
                         },
                         [&](Ip::Protocol p) { quoted(out, Ip::protocolText(p)); },
                         [&](TrafficDirection d) { appendNumber(out, static_cast<unsigned>(d)); },
                         [&](HoFlowState s) { quoted(out, FlowTracking::hoFlowStateText(s)); },
                         [&](Nimbet::IntfId intfId) {
                            if (intfId == Nimbet::IntfId()) return append(out, "null");
                            quoted(out, intfId.str());
                         },
                         [&](Ovie::VlanTag const& tag) {
                            if (!tag.isSet()) return append(out, "null");
                            fmt::format_to(to,
                                           R"({{"vlanId":{},"priority":{},"dropEligible":{},)"
                                           R"("protocolId":"{:#06x}","depth":{}}})",
                                           tag.vlanId(), tag.priority(), tag.dropEligible(), tag.protocolId(),
                                           tag.depth());
                         },
                         [&](Zeb::String const& strep) { append(out, ordered_json(strep.str()).dump()); },
                         [&](auto const& address) { quoted(out, address.str()); }},
              cell);
}

bool parseCell(CellType const& type, std::string_view text, Cell& cell, std::string& expected) {
   switch (type.kind) {
   case Kind::number: {
      expected = fmt::format("a number from 0 to {}", type.max);
      uint64_t number = 0;
      if (!parseNumber(text, number) || number > type.max) return false;
      cell = number;
      return true;
   }
   case Kind::time:
      expected = "seconds since 1970 or a time like 2025-03-01T12:00:00Z";
      return take<Zeb::Seconds>(parseTime, text, cell);
   case Kind::address4:
      expected = "an IPv4 address like 10.0.0.1";
      return take<Ip::IpAddr>(Ip::IpAddr::fromText(text), cell);
   case Kind::address6:
      expected = "an IPv6 address like 2001:db8::1";
      return take<Ip::Ip6Addr>(Ip::Ip6Addr::fromText(text), cell);
   case Kind::protocol:
      expected = "a protocol's name or number, like tcp, udp, icmp or 6";
      return take<Ip::Protocol>(Ip::protocolFromText(text), cell);
   case Kind::direction:
      expected = "unspecified, ingress, egress or a number from 0 to 255";
      return take<TrafficDirection>(parseDirection, text, cell);
   case Kind::state: {
      expected = "a state:";
      for (auto const name : FlowTracking::hoFlowStateNames) expected += fmt::format(" {},", name);
      expected += " or a number from 0 to 255";
      return take<HoFlowState>(FlowTracking::hoFlowStateFromText(text), cell);
   }
   case Kind::interface:
      expected = "an interface like if7, or none";
      return take<Nimbet::IntfId>(parseInterface, text, cell);
   case Kind::ethernet:
      expected = "an Ethernet address like 00:1c:73:00:00:99";
      return take<Nimbet::EthAddr>(parseEthernet, text, cell);
   case Kind::vlanTag:
      expected = "a VLAN id from 0 to 4095, or none";
      return take<Ovie::VlanTag>(parseTag, text, cell);
   case Kind::other:
      expected = fmt::format("the text form of a {}", type.type.name());
      return parseOther(type.type, text, cell);
   }
   return false;
}

std::partial_ordering compareCells(Cell const& a, Cell const& b) {
   return std::visit(
       Overloaded{[](Ovie::VlanTag const& x, Ovie::VlanTag const& y) -> std::partial_ordering {
                     if (x.isSet() != y.isSet()) return x.isSet() <=> y.isSet();
                     return x.vlanId() <=> y.vlanId();
                  },
                  [](Nimbet::IntfId x, Nimbet::IntfId y) -> std::partial_ordering {
                     if (x == y) return std::partial_ordering::equivalent;
                     return x < y ? std::partial_ordering::less : std::partial_ordering::greater;
                  },
                  [](Zeb::String const& x, Zeb::String const& y) -> std::partial_ordering {
                     return x == y ? std::partial_ordering::equivalent : std::partial_ordering::unordered;
                  },
                  []<class T>(T const& x, T const& y) -> std::partial_ordering { return x <=> y; },
                  [](auto const&, auto const&) { return std::partial_ordering::unordered; }},
       a, b);
}

std::string timeText(Zeb::Seconds seconds) {
   fmt::memory_buffer out;
   appendTime(out, seconds);
   return fmt::to_string(out);
}

} // namespace Tool

// SPDX-License-Identifier: Apache-2.0
// The table of protocol names. Names are unique without regard to case; numbers are those that IANA assigned.
#include "Ip/Protocol.h"

#include "Zeb/Strep.h"

#include <algorithm>
#include <charconv>
#include <strings.h>

namespace Ip {
namespace {

struct Name {
   std::uint32_t number;
   std::string_view text;
};

constexpr Name names[] = {
    {0, "HOPOPT"},     {1, "ICMP"},        {2, "IGMP"},       {3, "GGP"},     {4, "IPv4"},
    {5, "ST"},         {6, "TCP"},         {7, "CBT"},        {8, "EGP"},     {9, "IGP"},
    {17, "UDP"},       {27, "RDP"},        {33, "DCCP"},      {41, "IPv6"},   {43, "IPv6-Route"},
    {44, "IPv6-Frag"}, {46, "RSVP"},       {47, "GRE"},       {50, "ESP"},    {51, "AH"},
    {58, "ICMPv6"},    {59, "IPv6-NoNxt"}, {60, "IPv6-Opts"}, {80, "ISO-IP"}, {88, "EIGRP"},
    {89, "OSPF"},      {94, "IPIP"},       {97, "EtherIP"},   {98, "ENCAP"},  {103, "PIM"},
    {108, "IPComp"},   {112, "VRRP"},      {115, "L2TP"},     {124, "ISIS"},  {131, "PIPE"},
    {132, "SCTP"},     {133, "FC"},        {136, "UDPLite"},  {137, "MPLS"},  {138, "manet"},
    {139, "HIP"},      {140, "Shim6"},     {141, "WESP"},     {142, "ROHC"},  {143, "Ethernet"},
    {255, "Reserved"},
};

bool sameText(std::string_view a, std::string_view b) {
   return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

} // namespace

std::string_view protocolName(Protocol protocol) {
   auto const wanted = static_cast<std::uint32_t>(protocol);
   auto const* const found =
       std::lower_bound(std::begin(names), std::end(names), wanted,
                        [](Name const& name, std::uint32_t n) { return name.number < n; });
   return found != std::end(names) && found->number == wanted ? found->text : std::string_view();
}

std::string protocolText(Protocol protocol) {
   std::string_view const name = protocolName(protocol);
   return name.empty() ? std::to_string(static_cast<std::uint32_t>(protocol)) : std::string(name);
}

std::optional<Protocol> protocolFromText(std::string_view text) {
   for (Name const& name : names)
      if (sameText(name.text, text)) return static_cast<Protocol>(name.number);
   std::uint32_t value = 0;
   auto const read = std::from_chars(text.data(), text.data() + text.size(), value);
   if (text.empty() || read.ec != std::errc() || read.ptr != text.data() + text.size()) return std::nullopt;
   return static_cast<Protocol>(value);
}

Protocol sequenceToValue(Zeb::String::IteratorConst& it, Zeb::String::IteratorConst const& end, Protocol*) {
   auto const belongs = [](char c) { return Zeb::Impl::isLetter(c) || Zeb::Impl::isDigit(c) || c == '-'; };
   return Zeb::printedValue<Protocol>(it, end, "a protocol's name, like TCP, or its number if it has none,",
                                      belongs, protocolFromText);
}

} // namespace Ip

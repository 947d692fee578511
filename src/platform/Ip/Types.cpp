// SPDX-License-Identifier: Apache-2.0
// The modules of this folder. See Types.h.
#include "Ip/Types.h"

#include "Zeb/GenericIfImpl.h"

namespace {
using Zeb::GenericIfImpl::plainInfo;

constexpr Zeb::TypeInfo ipAddr = plainInfo<Ip::IpAddr>("Ip::IpAddr");
constexpr Zeb::TypeInfo const* ipAddrTypes[] = {&ipAddr};

constexpr Zeb::TypeInfo ip6Addr = plainInfo<Ip::Ip6Addr>("Ip::Ip6Addr");
constexpr Zeb::TypeInfo const* ip6AddrTypes[] = {&ip6Addr};

constexpr Zeb::TypeInfo protocol = plainInfo<Ip::Protocol>("Ip::Protocol");
constexpr Zeb::TypeInfo const* protocolTypes[] = {&protocol};
} // namespace

constinit Zeb::Module const _IpAddr_a3351900_zebModule{"IpAddr", ipAddrTypes};
constinit Zeb::Module const _Ip6Addr_acdcd70c_zebModule{"Ip6Addr", ip6AddrTypes};
constinit Zeb::Module const _Ip_bb465fd1_zebModule{"Ip", protocolTypes};

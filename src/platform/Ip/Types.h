// SPDX-License-Identifier: Apache-2.0
// The registered types of this folder.
#pragma once

#include "Ip/IpAddr.h"
#include "Ip/Protocol.h"
#include "Zeb/Composite.h"

extern HOFLOW_EXPORT Zeb::Module const _IpAddr_a3351900_zebModule;
extern HOFLOW_EXPORT Zeb::Module const _Ip6Addr_acdcd70c_zebModule;
extern HOFLOW_EXPORT Zeb::Module const _Ip_bb465fd1_zebModule;

template <> inline constexpr Zeb::ZebType Zeb::typeOf<Ip::IpAddr>{&_IpAddr_a3351900_zebModule, 0};
template <> inline constexpr Zeb::ZebType Zeb::typeOf<Ip::Ip6Addr>{&_Ip6Addr_acdcd70c_zebModule, 0};
template <> inline constexpr Zeb::ZebType Zeb::typeOf<Ip::Protocol>{&_Ip_bb465fd1_zebModule, 0};

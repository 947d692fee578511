// SPDX-License-Identifier: Apache-2.0
// The tracker's side of offloading: it writes the tables of chosen flows, and follows the tables in which the
// offload agent says what came of them. While it lives this process is the first ones' writer; their files
// stay.
#pragma once

#include "Choice.h"
#include "FlowTracking/HoFlowConfigEntity.h"
#include "FlowTracking/HoFlowStatusEntity.h"
#include "TableMark.h"
#include "Tables.h"

#include <string>

namespace Tracker {

class Offers {
   using Config = FlowTracking::HoFlowConfig;
   using Status = FlowTracking::HoFlowStatus;

public:
   /// @throws what Agents::mountWriter throws
   explicit Offers(std::string const& type);

   Agents::TableStore<Config, Config::Attribute4, &Config::hoIpFlowConfigIs, &Config::hoIpFlowConfigDel,
                      &Config::hoIpFlowConfigDelAll>
       ip4;
   Agents::TableStore<Config, Config::Attribute6, &Config::hoIp6FlowConfigIs, &Config::hoIp6FlowConfigDel,
                      &Config::hoIp6FlowConfigDelAll>
       ip6;

   static std::string path4(std::string const& type);
   static std::string path6(std::string const& type);
   /// Why a table came back without the rows that an earlier writer left, else nothing.
   std::string const& lost4() const { return lost4_; }
   std::string const& lost6() const { return lost6_; }

   /// Says in both tables how far they are.
   void markIs(Agents::TableMark mark);

   /// Whether an offload agent is at work.
   bool answered() const;
   /// Whether the copies of its tables hold all that is in them. True if there are none.
   bool knowsAnswers() const;
   /// In which states these flows are. One of which nothing is known is `unknown`.
   Agents::StateCounts states(Choice<FlowTracking::HoIpFlowConfig> const& chosen) const;
   Agents::StateCounts states(Choice<FlowTracking::HoIp6FlowConfig> const& chosen) const;

private:
   Offers(Zeb::Ptr<Config> config, std::string const& type);

   std::string const statusPath_;
   Zeb::Ptr<Zeb::Dir> tree_ = Zeb::Dir::DirIs("");
   Zeb::Ptr<Config> config_;
   Zeb::Ptr<Status> status_ = FlowTracking::hoFlowStatusFactory("status");
   std::string lost4_, lost6_;
};

} // namespace Tracker

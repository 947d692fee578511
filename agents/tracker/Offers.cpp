// SPDX-License-Identifier: Apache-2.0
// How the tables are mounted, and what the followed ones say. See Offers.h.
#include "Offers.h"

namespace Tracker {
namespace {

using Agents::StateCounts;
using FlowTracking::HoFlowState;

template <class Collection> bool isKnown(Collection const& statuses) {
   return !statuses.exists() || statuses.mountStatus() == Mem::MountStatus::synchronised;
}

template <class Collection, class Config>
StateCounts count(Collection const& statuses, Choice<Config> const& chosen) {
   StateCounts counts{};
   chosen.forEachChosen([&](auto const& key) {
      bool found = false;
      auto const* const row = statuses.safeLookup(key, found, nullptr);
      auto const number = static_cast<std::size_t>(found ? row->hoFlowState() : HoFlowState::unknown);
      ++counts[number < counts.size() ? number : 0];
   });
   return counts;
}

} // namespace

Offers::Offers(std::string const& type)
   : Offers(FlowTracking::hoFlowConfigFactory("config"), type) {}

Offers::Offers(Zeb::Ptr<Config> config, std::string const& type)
   : ip4(*config, config->hoIpFlowConfig())
   , ip6(*config, config->hoIp6FlowConfig())
   , statusPath_(Status::mountPath(type).view())
   , config_(std::move(config)) {
   tree_->entityIs(Config::mountPath(type), config_);
   lost4_ = Agents::mountWriter(config_->hoIpFlowConfigControl(), "hoIpFlowConfig", Agents::flowTableSize);
   lost6_ = Agents::mountWriter(config_->hoIp6FlowConfigControl(), "hoIp6FlowConfig", Agents::flowTableSize);
   tree_->entityIs(Status::mountPath(type), status_);
   Mirak::MapDescriptor follow(Agents::flowTableSize);
   follow.type = Mirak::MirakType::shadow;
   status_->hoIpFlowStatusControl()->init(follow);
   status_->hoIp6FlowStatusControl()->init(follow);
}

std::string Offers::path4(std::string const& type) {
   return std::string(Config::mountPath(type).view()) + "/hoIpFlowConfig";
}
std::string Offers::path6(std::string const& type) {
   return std::string(Config::mountPath(type).view()) + "/hoIp6FlowConfig";
}

void Offers::markIs(Agents::TableMark mark) {
   config_->hoIpFlowConfig().scratchpadIs(static_cast<Mem::u64>(mark));
   config_->hoIp6FlowConfig().scratchpadIs(static_cast<Mem::u64>(mark));
}

bool Offers::answered() const { return Agents::writerOf(statusPath_ + "/hoIpFlowStatus") != 0; }

bool Offers::knowsAnswers() const {
   return isKnown(status_->hoIpFlowStatus()) && isKnown(status_->hoIp6FlowStatus());
}

StateCounts Offers::states(Choice<FlowTracking::HoIpFlowConfig> const& chosen) const {
   return count(std::as_const(*status_).hoIpFlowStatus(), chosen);
}
StateCounts Offers::states(Choice<FlowTracking::HoIp6FlowConfig> const& chosen) const {
   return count(std::as_const(*status_).hoIp6FlowStatus(), chosen);
}

} // namespace Tracker

// SPDX-License-Identifier: Apache-2.0
// Comparison and text of table descriptors. See MapDescriptor.h.
#include "Mirak/MapDescriptor.h"

#include <tuple>

namespace Mirak {

std::string formatMirakType(MirakType type) {
   switch (type) {
   case MirakType::writer:
      return "writer";
   case MirakType::shadow:
      return "shadow";
   case MirakType::reader:
      return "reader";
   case MirakType::keyshadow:
      return "keyshadow";
   }
   return fmt::format("{}", static_cast<int>(type));
}

static auto fields(MapDescriptor const& d) {
   return std::tie(d.size, d.type, d.local, d.fixedSize, d.shrinkSlots, d.shrinkBuckets_, d.pruneQueue,
                   d.synchronous, d.shadowOption, d.heap, d.trackMemory, d.cleanupOnInit, d.reattach,
                   d.assertOnOrphanAccess, d.criticalTaskCheck, d.prevValue);
}

bool MapDescriptor::operator==(MapDescriptor const& other) const { return fields(*this) == fields(other); }

} // namespace Mirak

fmt::format_context::iterator
fmt::formatter<Mirak::MapDescriptor>::format(Mirak::MapDescriptor const& d,
                                             fmt::format_context& context) const {
   std::string text = fmt::format("size:{} type:{}", d.size, Mirak::formatMirakType(d.type));
   auto flag = [&](char const* name, bool on) {
      if (on) text.append(" ").append(name);
   };
   flag("local", d.local);
   flag("fixedSize", d.fixedSize);
   flag("shrinkSlots", d.shrinkSlots);
   flag("shrinkBuckets", d.shrinkBuckets_);
   flag("pruneQueue", d.pruneQueue);
   flag("synchronous", d.synchronous);
   flag("shadowOption", d.shadowOption);
   flag("heap", d.heap);
   flag("trackMemory", d.trackMemory);
   flag("cleanupOnInit", d.cleanupOnInit);
   flag("reattach", d.reattach);
   flag("assertOnOrphanAccess", d.assertOnOrphanAccess);
   flag("criticalTaskCheck", d.criticalTaskCheck);
   flag("prevValue", d.prevValue);
   return fmt::formatter<std::string>::format(text, context);
}

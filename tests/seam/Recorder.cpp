// SPDX-License-Identifier: Apache-2.0
// See Recorder.h.
#include "Recorder.h"

#include <stdexcept>

namespace Test {

void Recorder::beforeStore(void* at, void const* value, std::size_t bytes) {
   auto const* place = static_cast<char const*>(at);
   for (auto const& [name, wrapper] : files_) {
      char const* const base = wrapper->base();
      if (!base || place < base || place >= base + wrapper->mappedSize()) continue;
      events.push_back({.kind = Event::Kind::store,
                        .file = name,
                        .offset = static_cast<std::uint64_t>(place - base),
                        .length = bytes,
                        .bytes = std::string(static_cast<char const*>(value), bytes)});
      return;
   }
   throw std::logic_error("a store outside the writer's files");
}

void Recorder::beforeFileCall(Mem::Seam::FileCall const& call) {
   Event event{.kind =
                   static_cast<Event::Kind>(static_cast<int>(call.kind) + 1), // Event adds `store` in front
               .file = nameOf(call.path),
               .target = call.target.empty() ? std::string() : nameOf(call.target),
               .offset = call.offset,
               .length = call.length};
   if (call.bytes) event.bytes.assign(static_cast<char const*>(call.bytes), call.length);
   events.push_back(std::move(event));
}

/// Directories come out as the empty name.
std::string Recorder::nameOf(std::string const& path) const {
   if (path.size() <= directory_.size() || path.compare(0, directory_.size(), directory_) != 0) return {};
   return path.substr(directory_.size() + 1);
}

} // namespace Test

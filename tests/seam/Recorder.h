// SPDX-License-Identifier: Apache-2.0
// Watches the accesses of one writer and notes each store and each file call as an Event. A store is found
// again in its file through the writer's mappings, which may move between two stores.
#pragma once

#include "Image.h"
#include "Mem/ParcelWrapper.h"

namespace Test {

class Recorder final : public Mem::Seam::Observer {
public:
   /// Records from now on, what this thread does.
   explicit Recorder(std::string directory)
      : directory_(std::move(directory))
      , outer_(Mem::Seam::observer) {
      Mem::Seam::observer = this;
   }
   ~Recorder() override { stop(); }
   Recorder(Recorder const&) = delete;
   Recorder& operator=(Recorder const&) = delete;
   void stop() {
      if (Mem::Seam::observer == this) Mem::Seam::observer = outer_;
   }

   /// The writer's wrappers, by their files' names.
   void watch(std::map<std::string, Mem::ParcelWrapper const*> files) { files_ = std::move(files); }

   void beforeStore(void* at, void const* value, std::size_t bytes) override;
   void beforeFileCall(Mem::Seam::FileCall const& call) override;

   Events events;

private:
   std::string nameOf(std::string const& path) const;

   std::string directory_;
   std::map<std::string, Mem::ParcelWrapper const*> files_;
   Mem::Seam::Observer* outer_;
};

} // namespace Test

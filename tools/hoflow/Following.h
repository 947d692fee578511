// SPDX-License-Identifier: Apache-2.0
// The two ways in which `watch` follows a table: by its change queue, as a shadow does, or, where the table's
// type has none, by walking it again and again. Both tell Changes.h the same things.
//
// By the queue each change is told as soon as the writer announces it, and a row that changed often between
// two looks once. By walking, changes are told that can be seen from one walk to the next.
#pragma once

#include "Changes.h"

#include <memory>

namespace Tool {

class Following {
public:
   Following() = default;
   Following(Following const&) = delete;
   Following& operator=(Following const&) = delete;
   virtual ~Following() = default;

   /// Tells what has happened to the table as a whole, and walks if it is time to. To be called after each
   /// turn of the loop. @throws Failure
   virtual void turn() = 0;
   /// Nothing is left to be told.
   virtual bool quiet() const = 0;
   /// Seconds after which turn() is to be called even if nothing happens in the loop.
   virtual double pause() const = 0;
   /// The table is there, and could never be followed.
   virtual bool refused() const { return false; }
};

/// `changes` is to outlive what these return. @param present how the rows are told of that are there already
std::unique_ptr<Following> followQueue(Changes& changes, Mirak::TableType const& type,
                                       Changes::Present present);
/// @param interval seconds from walk to walk
std::unique_ptr<Following> followByWalking(Changes& changes, Changes::Present present, double interval);

} // namespace Tool

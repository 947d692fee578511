// SPDX-License-Identifier: Apache-2.0
// The one way up: what a collection's back end and its front object tell their client. Everything runs on the
// thread that owns the collection.
//
// A callback may use the collection, detach it and mount it again. It must not be empty, so each has a
// default that does nothing; it must not destroy the collection, and not run the loop.
#pragma once

#include <functional>

namespace Mem {

template <class Key, class Value> struct Notify {
   std::function<void(Value const&)> changeFn = [](Value const&) {}; ///< a row was written
   std::function<void(Key const&)> keyFn = [](Key const&) {};        ///< a row was written, by its key
   std::function<void(Key const&)> keyDelFn = [](Key const&) {};     ///< a row was removed
   std::function<void()> mountStatusFn = [] {};                      ///< the mount status may have changed
   std::function<void(bool)> quiescedFn = [](bool) {}; ///< true after a mount, false after a detach
   // Where the three callbacks on rows wait while an asynchronous shadow fills its copy for the first time.
   std::function<void(Value const&)> deferredChangeFn = [](Value const&) {};
   std::function<void(Key const&)> deferredKeyFn = [](Key const&) {};
   std::function<void(Key const&)> deferredKeyDelFn = [](Key const&) {};
   bool notifyLive = true; ///< false while they wait there
};

} // namespace Mem

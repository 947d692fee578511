// SPDX-License-Identifier: Apache-2.0
// What every kind of collection has in common towards those who mount it: a base for its settings, and the
// status that a mount is in. The settings themselves belong to the kind of collection
// (Mirak/MapDescriptor.h).
#pragma once

namespace Mem {

/// Base of all collections' descriptors; whoever takes one casts it down to the kind that it knows.
struct CollectionDescriptor {
   virtual ~CollectionDescriptor() = default;
};

/// `synchronised`: a copy that has caught up with its table. `flushing`: a copy that is being emptied after
/// its table went away.
enum class MountStatus { notMounted = 0, mounted = 1, synchronised = 2, flushing = 3 };

} // namespace Mem

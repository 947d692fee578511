// SPDX-License-Identifier: Apache-2.0
// The anchors under the name by which table code includes them. They are defined in Mem.
#pragma once

#include "Mem/VersionAnchor.h"

// SPDX-License-Identifier: Apache-2.0
// Mapped and private memory under the name by which table code includes them. They are defined in Mem.
#pragma once

#include "Mem/Local.h"
#include "Mem/ParcelWrapper.h"

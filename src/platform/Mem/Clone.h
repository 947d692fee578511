// SPDX-License-Identifier: Apache-2.0
// The name of the control file by which a table's directory may be cloned. Here only so that cleanup removes
// it.
#pragma once

namespace Mem::Util::Clone {

inline constexpr char const* CONTROL_FILENAME = "clone-control";

} // namespace Mem::Util::Clone

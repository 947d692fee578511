// SPDX-License-Identifier: Apache-2.0
// The one instantiation of the tables of these tests.
#include "Support.h"

template class Mirak::MirakReader<Test::ShadowOps>;
template class Mirak::MirakWriter<Test::ShadowOps>;
template class Mirak::MirakMap<Test::ShadowOps>;

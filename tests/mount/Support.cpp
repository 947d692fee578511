// SPDX-License-Identifier: Apache-2.0
// The tables of these tests. See Support.h.
#include "Support.h"

template class Mirak::MirakReader<Test::OpsOf<Test::Row<5, true>>>;
template class Mirak::MirakWriter<Test::OpsOf<Test::Row<5, true>>>;
template class Mirak::MirakMap<Test::OpsOf<Test::Row<5, true>>>;
template class Mirak::MirakReader<Test::OpsOf<Test::Row<5>>>;
template class Mirak::MirakWriter<Test::OpsOf<Test::Row<5>>>;
template class Mirak::MirakMap<Test::OpsOf<Test::Row<5>>>;

// SPDX-License-Identifier: Apache-2.0
// What an agent relies on when it loads the shared library: exceptions are caught by their types, and the
// process's settings reach the library's side.
#include "Lomi/Exception.h"
#include "Lomi/TaskSchedulerRoot.h"
#include "Mem/ParcelWrapper.h"
#include "Parcel/KestorFile.h"
#include "Scratch.h"

#include <gtest/gtest.h>

TEST(SharedLibrary, ExceptionsCrossItsBorder) {
   Scratch const scratch;
   EXPECT_THROW(scratch.table("a/../b"), Lomi::InvalidInitializeException);
   Parcel::KestorFile const file(handler(), scratch.table(), false);
   EXPECT_THROW(file.validate(Parcel::KestorId(1, 1)), Lomi::CorruptionDetectedException);
}

TEST(SharedLibrary, RootSinkAndSchedulerAreTheProcesss) {
   Scratch const scratch;
   Mem::ParcelWrapper writer(handler(), scratch.table(), "slots", false);
   ASSERT_NE(writer.attach(4096, Mem::Mode::writer), nullptr);
   EXPECT_EQ(writer.getFilename(), scratch.path() + "/a/table/slots");
   std::string seen;
   Lomi::Platform::traceSinkIs([&](unsigned, auto, auto, std::string_view text) { seen = text; });
   auto& root = Lomi::TaskSchedulerRoot::root();
   auto const task = root.deferredTask([] { throw Lomi::RuntimeException("from the agent"); },
                                       Lomi::TaskPriority::critical);
   root.runCriticalPriorityTasks();
   Lomi::Platform::traceSinkIs({});
   EXPECT_EQ(seen, "critical task threw: from the agent");
}

// SPDX-License-Identifier: Apache-2.0
// Traces, assertions, arithmetic and time. What it can't see: where spdlog puts a line on stderr.
#include "Lomi/Exception.h"
#include "Lomi/Util.h"
#include "Scratch.h"

#include <gtest/gtest.h>

#include <fstream>
#include <vector>

using Lomi::Platform::DebugHandler;

namespace {

struct Line {
   unsigned level;
   std::string handler, where, text;
};

class Captured {
public:
   Captured() {
      Lomi::Platform::traceSinkIs(
          [this](unsigned level, std::string_view name, std::string_view where, std::string_view text) {
             lines.push_back({level, std::string(name), std::string(where), std::string(text)});
          });
   }
   ~Captured() { Lomi::Platform::traceSinkIs({}); }
   std::vector<Line> lines;
};

} // namespace

TEST(Trace, EvaluatesArgumentsOnlyIfTheLevelIsOn) {
   Captured captured;
   DebugHandler handle("a");
   handle.maskIs(1u << 5);
   int evaluated = 0;
   for (unsigned level = 0; level < Lomi::Platform::traceLevels; ++level)
      LOMI_TRACE(handle, level, "Class", "level {} count {}", level, ++evaluated);
   EXPECT_EQ(evaluated, 1);
   ASSERT_EQ(captured.lines.size(), 1u);
   EXPECT_EQ(captured.lines[0].level, 5u);
   EXPECT_EQ(captured.lines[0].handler, "a");
   EXPECT_EQ(captured.lines[0].where, "Class::TestBody");
   EXPECT_EQ(captured.lines[0].text, "level 5 count 1");
}

TEST(Trace, DefaultMaskReachesHandlersWithoutTheirOwn) {
   auto const follows = Lomi::Platform::getDebugHandler("follows", true);
   auto const own = Lomi::Platform::getDebugHandler("own", true);
   EXPECT_TRUE(follows->traces(0));
   EXPECT_FALSE(follows->traces(1));
   own->maskIs(1u << 9);
   Lomi::Platform::defaultMaskIs(1u << 3);
   EXPECT_TRUE(follows->traces(3));
   EXPECT_FALSE(follows->traces(0));
   EXPECT_FALSE(own->traces(3));
   EXPECT_TRUE(DebugHandler("new").traces(3));
   Lomi::Platform::defaultMaskIs(1);
   EXPECT_EQ(Lomi::Platform::getDebugHandler("follows", false), follows);
   EXPECT_EQ(Lomi::Platform::getDebugHandler("unknown", false), nullptr);
   EXPECT_NE(Lomi::Platform::getDebugHandler("MirakTemp", false), nullptr);
}

TEST(Trace, NeverThrows) {
   Lomi::Platform::traceSinkIs([](auto...) { throw Lomi::RuntimeException("sink"); });
   EXPECT_NO_THROW(LOMI_TRACE(handler(), 0, "Class", "text"));
   Lomi::Platform::traceSinkIs({});
}

TEST(Trace, WithoutASinkGoesToStderr) {
   testing::internal::CaptureStderr();
   LOMI_TRACE(handler(), 0, "Class", "number {}", 17);
   EXPECT_NE(testing::internal::GetCapturedStderr().find("0 test Class::TestBody: number 17\n"),
             std::string::npos);
}

TEST(Util, FileSizesAreWholePagesBelowTheLimit) {
   using Lomi::Util::fileSizeHelper;
   EXPECT_EQ(fileSizeHelper(0, 104, 688), 4096u);
   EXPECT_EQ(fileSizeHelper(32, 104, 688), 4096u);
   EXPECT_EQ(fileSizeHelper(33, 104, 688), 8192u);
   // A header with a file of 4 GiB - 4096 bytes is refused at adoption, so no such file may be made.
   EXPECT_EQ(fileSizeHelper((0xfffff000u - 4096u) / 8, 8, 0), 0xffffe000u);
   EXPECT_THROW(fileSizeHelper((0xfffff000u - 4096u) / 8 + 1, 8, 0), Lomi::RuntimeException);
   EXPECT_THROW(fileSizeHelper(0xffffffffu, 0xffffffffu, 0xffffffffu), Lomi::RuntimeException);
}

TEST(Util, CoreFilesTakeSharedMemory) {
   EXPECT_EQ(Child([] {
                if (!Lomi::Util::includeShmemInCore()) return 1;
                unsigned long filter = 0;
                std::ifstream("/proc/self/coredump_filter") >> std::hex >> filter;
                return (filter & 0xa) == 0xa ? 0 : 2;
             }).wait(),
             0);
}

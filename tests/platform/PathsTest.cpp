// SPDX-License-Identifier: Apache-2.0
#include "Mem/Paths.h"

#include "Lomi/Exception.h"
#include "Scratch.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

TEST(Paths, BadNamesAreRefusedByName) {
   Scratch const scratch;
   for (std::string const& name :
        {std::string(""), std::string("/a"), std::string("a/"), std::string("a//b"), std::string(".."),
         std::string("a/../b"), std::string("a/."), std::string("a\0b", 3), std::string(256, 'x')}) {
      try {
         scratch.table(name);
         ADD_FAILURE() << "accepted " << name;
      } catch (Lomi::InvalidInitializeException const& error) {
         EXPECT_NE(std::string(error.what()).find(name.substr(0, name.find('\0'))), std::string::npos);
      }
   }
   EXPECT_NO_THROW(scratch.table("..a/b..")) << "dots within a name are fine";
   EXPECT_NO_THROW(Mem::NaoRootPath(handler(), "//any text\0", true)) << "a local name is no path";
   EXPECT_THROW(Mem::RootPath::set(""), Lomi::InvalidInitializeException);
}

TEST(Paths, TheRootItselfIsMadeAndFixedAtConstruction) {
   Scratch const scratch;
   Mem::RootPath::set(scratch.path() + "/deeper/root///");
   EXPECT_EQ(Mem::RootPath::get(), scratch.path() + "/deeper/root");
   auto const path = scratch.table("t");
   Mem::RootPath::set(scratch.path());
   path.makeDirectories();
   struct stat status {};
   ASSERT_EQ(::stat((scratch.path() + "/deeper/root/t").c_str(), &status), 0);
   EXPECT_EQ(status.st_mode & 07777, 040755u & 07777);
}

TEST(Paths, LinksAndFilesInTheWayAreRefusedByName) {
   Scratch const scratch;
   std::filesystem::create_directory(scratch.path() + "/real");
   std::filesystem::create_directory_symlink(scratch.path() + "/real", scratch.path() + "/link");
   std::FILE* const file = std::fopen((scratch.path() + "/file").c_str(), "w");
   ASSERT_NE(file, nullptr);
   std::fclose(file);
   for (std::string const name : {"link", "file"}) {
      auto const path = scratch.table(name + "/t");
      EXPECT_FALSE(path.openDirectory());
      try {
         path.makeDirectories();
         ADD_FAILURE() << name;
      } catch (Lomi::InvalidInitializeException const& error) {
         EXPECT_NE(std::string(error.what()).find(scratch.path() + "/" + name), std::string::npos)
             << error.what();
      }
   }
   EXPECT_TRUE(std::filesystem::is_empty(scratch.path() + "/real"));
   // The same for the root's own last component, where others may be able to write.
   Mem::RootPath::set(scratch.path() + "/link");
   EXPECT_THROW(scratch.table("t").makeDirectories(), Lomi::InvalidInitializeException);
   Mem::RootPath::set(scratch.path());
}

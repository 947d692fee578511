// SPDX-License-Identifier: Apache-2.0
// A program run as a user would run it, beside the test or to its end.
#pragma once

#include "Mem/Paths.h"
#include "Processes.h"

#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <pty.h>
#include <sstream>
#include <sys/ioctl.h>
#include <utility>
#include <vector>

namespace Test {

using nlohmann::json;

struct Result {
   int status = -1; ///< as Child::wait
   std::string out, err;

   /// Expects this status, and these words on stderr.
   void is(int wanted, std::vector<std::string> const& words = {}) const {
      EXPECT_EQ(status, wanted) << err;
      for (auto const& part : words) EXPECT_NE(err.find(part), std::string::npos) << part << ": " << err;
   }
   std::vector<std::string> lines() const {
      std::vector<std::string> found;
      std::istringstream in(out);
      for (std::string line; std::getline(in, line);) found.push_back(line);
      return found;
   }
   /// stdout as one JSON object a line. Fails the test if it is none.
   std::vector<json> objects() const {
      std::vector<json> found;
      for (auto const& line : lines()) found.push_back(objectOf(line));
      return found;
   }
   /// The only one.
   json object() const {
      auto const found = objects();
      EXPECT_EQ(found.size(), 1u) << err;
      return found.empty() ? json::object() : found[0];
   }
   static json objectOf(std::string const& text) {
      auto object = json::parse(text, nullptr, false);
      EXPECT_TRUE(object.is_object()) << text;
      return object.is_object() ? object : json::object();
   }
};

/// How a program is run beside its arguments.
struct Surroundings {
   std::vector<std::string> environment = {}; ///< NAME=VALUE; nothing else is set
   unsigned uid = 0;                          ///< another user; needs root
   bool terminal = false;                     ///< stdin and stdout are one
   bool closedPipe = false;                   ///< stdout is a pipe that nobody reads
   std::string fromFile = "/dev/null";        ///< stdin
   std::string intoFile = {};                 ///< stdout is this file
   /// Called when the pipe of stdout is full, before it is read.
   std::function<void(int pid)> whileBlocked = {};
};

/// A program that runs beside the test. Ended with it, or after two minutes.
class Running {
public:
   Running(std::string const& program, std::vector<std::string> arguments, Surroundings const& around = {}) {
      Mem::Descriptor out, err;
      openEnds(ends_[0], out, around.terminal);
      openEnds(ends_[1], err, false);
      if (!around.intoFile.empty())
         out = Mem::Descriptor(::open(around.intoFile.c_str(), O_WRONLY | O_CLOEXEC));
      if (around.closedPipe) ends_[0] = {};
      arguments.insert(arguments.begin(), program);
      child_ = std::make_unique<Child>([&] {
         int const in = around.terminal ? out.get() : ::open(around.fromFile.c_str(), O_RDONLY);
         int const from[] = {in, out.get(), err.get()};
         for (int to = 0; to < 3; ++to) ::dup2(from[to], to);
         if (around.uid && (::setgid(around.uid) != 0 || ::setuid(around.uid) != 0)) return 99;
         ::alarm(120);
         auto environment = around.environment;
         environment.push_back("TERM=xterm");
         ::execve(program.c_str(), pointers(arguments).data(), pointers(environment).data());
         return 98;
      });
      out = {}, err = {};
      if (around.whileBlocked) {
         waitUntilFull();
         around.whileBlocked(child_->pid());
      }
   }

   /// The next line of stdout. Fails the test, and is empty, where none comes in a minute.
   std::string line() {
      std::size_t end;
      while ((end = said_[0].find('\n')) == std::string::npos)
         if (!more()) {
            ADD_FAILURE() << "no line comes: " << said_[0] << said_[1];
            return {};
         }
      std::string const line = said_[0].substr(0, end);
      said_[0].erase(0, end + 1);
      return line;
   }
   /// The next line as an object.
   json object() { return Result::objectOf(line()); }
   /// Waits until stdout, or stderr, says this. What was said up to there isn't looked at again.
   void says(std::string const& text, bool error = false) {
      std::string& in = said_[error];
      std::size_t at;
      while ((at = in.find(text)) == std::string::npos)
         if (!more()) {
            ADD_FAILURE() << "\"" << text << "\" isn't said: " << in;
            return;
         }
      in.erase(0, at + text.size());
   }
   void type(char key) const { EXPECT_EQ(::write(ends_[0].get(), &key, 1), 1); }
   void signal(int number) const { child_->signal(number); }
   /// Sends a signal, if any, and waits for the end, also without reading. @return as Child::wait
   int end(int number = 0) {
      if (number) signal(number);
      return child_->wait();
   }
   /// Reads all that it says, and waits for its end.
   Result wait() {
      while (more()) {
      }
      return {end(), said_[0], said_[1]};
   }

private:
   static std::vector<char*> pointers(std::vector<std::string>& texts) {
      std::vector<char*> all;
      for (auto& text : texts) all.push_back(text.data());
      all.push_back(nullptr);
      return all;
   }
   static void openEnds(Mem::Descriptor& reading, Mem::Descriptor& writing, bool terminal) {
      int ends[2];
      if ((terminal ? ::openpty(&ends[0], &ends[1], nullptr, nullptr, nullptr) : ::pipe(ends)) != 0)
         std::abort();
      for (int end : ends) ::fcntl(end, F_SETFD, FD_CLOEXEC);
      reading = Mem::Descriptor(ends[0]);
      writing = Mem::Descriptor(ends[1]);
   }
   /// A pipe takes 64 KiB, less where pages of it aren't filled; who wants to write more into it waits.
   void waitUntilFull() const {
      for (int tenths = 0, before = 0; tenths < 300; ++tenths) {
         int waiting = 0;
         ::ioctl(ends_[0].get(), FIONREAD, &waiting);
         if (waiting >= 65536 / 2 && waiting == before) return;
         before = waiting;
         pause(0.1);
      }
      ADD_FAILURE() << "the program never filled the pipe";
   }
   /// Waits for something to be said. @return false if nothing more is
   bool more() {
      int const fds[] = {ends_[0].get(), ends_[1].get()};
      pollfd from[2] = {{fds[0], POLLIN, 0}, {fds[1], POLLIN, 0}};
      if ((fds[0] < 0 && fds[1] < 0) || ::poll(from, 2, 60000) <= 0) return false;
      for (int i = 0; i < 2; ++i) {
         if (!from[i].revents) continue;
         char buffer[65536];
         ssize_t const bytes = ::read(fds[i], buffer, sizeof buffer);
         if (bytes > 0)
            said_[i].append(buffer, static_cast<std::size_t>(bytes));
         else
            ends_[i] = {}; // a terminal whose other end is gone answers EIO
      }
      return true;
   }

   Mem::Descriptor ends_[2]; // of stdout and stderr
   std::string said_[2];
   std::unique_ptr<Child> child_;
};

} // namespace Test

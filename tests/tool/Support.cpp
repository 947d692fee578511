// SPDX-License-Identifier: Apache-2.0
// Running the program, and the tests' files. See Support.h.
#include "Support.h"

#include "Tessel/QueueFormat.h"

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <poll.h>
#include <pty.h>
#include <sstream>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace ToolTest {

namespace fs = std::filesystem;

std::vector<std::string> Result::lines() const {
   std::vector<std::string> found;
   std::istringstream in(out);
   for (std::string line; std::getline(in, line);) found.push_back(line);
   return found;
}

std::vector<json> Result::objects() const {
   std::vector<json> found;
   for (std::string const& line : lines()) {
      auto object = json::parse(line, nullptr, false);
      EXPECT_TRUE(object.is_object()) << line;
      found.push_back(std::move(object));
   }
   return found;
}

namespace {

struct Pipe {
   int reading = -1, writing = -1;
};

Pipe makePipe() {
   int ends[2];
   if (pipe2(ends, O_CLOEXEC) != 0) std::abort();
   return {ends[0], ends[1]};
}

Pipe makeTerminal() {
   int main = -1, other = -1;
   if (openpty(&main, &other, nullptr, nullptr, nullptr) != 0) std::abort();
   fcntl(main, F_SETFD, FD_CLOEXEC);
   fcntl(other, F_SETFD, FD_CLOEXEC);
   return {main, other};
}

[[noreturn]] void becomeTool(std::vector<std::string> const& arguments, Surroundings const& around, int out,
                             int err, bool outIsIn = false) {
   if (outIsIn) dup2(out, STDIN_FILENO);
   dup2(out, STDOUT_FILENO);
   dup2(err, STDERR_FILENO);
   if (around.uid && (setgid(around.uid) != 0 || setuid(around.uid) != 0)) _exit(99);
   alarm(60);
   std::vector<char*> argv{const_cast<char*>("hoflow")}, envp;
   for (std::string const& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
   for (std::string const& variable : around.environment) envp.push_back(const_cast<char*>(variable.c_str()));
   argv.push_back(nullptr);
   envp.push_back(nullptr);
   execve(HOFLOW_TOOL, argv.data(), envp.data());
   _exit(98);
}

/// A pipe takes 64 KiB, less where pages of it aren't filled; who wants to write more into it waits.
void waitUntilFull(int pipe) {
   for (int tenths = 0, before = 0; tenths < 300; ++tenths) {
      int waiting = 0;
      ioctl(pipe, FIONREAD, &waiting);
      if (waiting >= 65536 / 2 && waiting == before) return;
      before = waiting;
      usleep(100000);
   }
   ADD_FAILURE() << "the tool never filled the pipe";
}

/// Reads both until both are closed.
void drain(int out, int err, Result& result) {
   pollfd from[2] = {{out, POLLIN, 0}, {err, POLLIN, 0}};
   std::string* const into[2] = {&result.out, &result.err};
   while (from[0].fd >= 0 || from[1].fd >= 0) {
      if (poll(from, 2, -1) < 0) continue;
      for (int i = 0; i < 2; ++i) {
         if (from[i].fd < 0 || !from[i].revents) continue;
         char buffer[65536];
         ssize_t const got = ::read(from[i].fd, buffer, sizeof buffer);
         if (got > 0)
            into[i]->append(buffer, static_cast<std::size_t>(got));
         else
            from[i].fd = -1; // a terminal whose other end is gone answers EIO
      }
   }
}

} // namespace

Result hoflow(std::vector<std::string> const& arguments, Surroundings const& around) {
   Pipe out = around.terminal ? makeTerminal() : makePipe();
   Pipe const err = makePipe();
   if (!around.intoFile.empty()) {
      close(out.writing);
      out.writing = open(around.intoFile.c_str(), O_WRONLY | O_CLOEXEC);
   }
   if (around.closedPipe) {
      close(out.reading);
      out.reading = -1;
   }
   pid_t const child = fork();
   if (child == 0) becomeTool(arguments, around, out.writing, err.writing);
   close(out.writing);
   close(err.writing);
   if (around.whileBlocked) {
      waitUntilFull(out.reading);
      around.whileBlocked(child);
   }
   Result result;
   drain(out.reading, err.reading, result);
   if (out.reading >= 0) close(out.reading);
   close(err.reading);
   int status = 0;
   waitpid(child, &status, 0);
   result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
   return result;
}

Running::Running(std::vector<std::string> arguments, bool terminal) {
   arguments.insert(arguments.begin(), {"--root", Mem::RootPath::get()});
   Pipe const out = terminal ? makeTerminal() : makePipe();
   Pipe const err = makePipe();
   pid_ = fork();
   if (pid_ == 0) becomeTool(arguments, {.environment = {"TERM=xterm"}}, out.writing, err.writing, terminal);
   close(out.writing);
   close(err.writing);
   out_ = out.reading;
   err_ = err.reading;
}

Running::~Running() {
   if (pid_ > 0) end(SIGKILL);
   close(out_);
   close(err_);
}

/// Waits for something to be said. @return false if nothing more is
bool Running::more() {
   pollfd from[2] = {{out_, POLLIN, 0}, {err_, POLLIN, 0}};
   if (poll(from, 2, 60000) <= 0) return false;
   char buffer[65536];
   bool got = false;
   for (int i = 0; i < 2; ++i) {
      if (!from[i].revents) continue;
      ssize_t const bytes = ::read(from[i].fd, buffer, sizeof buffer);
      if (bytes <= 0) continue;
      (i ? complained_ : said_).append(buffer, static_cast<std::size_t>(bytes));
      got = true;
   }
   return got;
}

std::string Running::line() {
   std::size_t end;
   while ((end = said_.find('\n')) == std::string::npos)
      if (!more()) {
         ADD_FAILURE() << "no line comes: " << said_ << complained_;
         return {};
      }
   std::string const line = said_.substr(0, end);
   said_.erase(0, end + 1);
   return line;
}

json Running::object() {
   std::string const text = line();
   auto const object = json::parse(text, nullptr, false);
   EXPECT_TRUE(object.is_object()) << text;
   return object.is_object() ? object : json::object();
}

void Running::says(std::string const& text, bool error) {
   std::string& in = error ? complained_ : said_;
   std::size_t at;
   while ((at = in.find(text)) == std::string::npos)
      if (!more()) {
         ADD_FAILURE() << "\"" << text << "\" isn't said: " << in;
         return;
      }
   in.erase(0, at + text.size());
}

void Running::type(char key) const { EXPECT_EQ(::write(out_, &key, 1), 1); }

int Running::end(int signal) {
   if (signal) kill(pid_, signal);
   int status = 0;
   waitpid(std::exchange(pid_, -1), &status, 0);
   return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

Lomi::Platform::DebugHandler const& handler() {
   static Lomi::Platform::DebugHandler handler("tool-test");
   handler.maskIs(0);
   return handler;
}

Root::Root() {
   char path[] = "/dev/shm/hoflow-tool-test-XXXXXX";
   if (!mkdtemp(path)) std::abort();
   root = path;
   chmod(path, 0755);
   Mem::RootPath::set(root);
}

Root::~Root() { fs::remove_all(root); }

Result Root::run(std::vector<std::string> arguments, Surroundings const& around) const {
   arguments.insert(arguments.begin(), {"--root", root});
   return hoflow(arguments, around);
}

std::vector<char> Root::read(std::string const& path) const {
   std::ifstream in(path, std::ios::binary);
   return {std::istreambuf_iterator<char>(in), {}};
}

void Root::write(std::string const& path, std::vector<char> const& bytes) const {
   std::ofstream out(path, std::ios::binary | std::ios::trunc);
   out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
   EXPECT_TRUE(out.flush().good()) << path;
}

void Root::store(std::string const& path, std::size_t offset, void const* from, std::size_t bytes) const {
   int const file = open(path.c_str(), O_WRONLY | O_CLOEXEC);
   EXPECT_EQ(pwrite(file, from, bytes, static_cast<off_t>(offset)), static_cast<ssize_t>(bytes)) << path;
   close(file);
}

void Root::sealHeader(std::string const& table) const {
   auto const path = file(table, "slots");
   poke(path, offsetof(Mirak::SlotTableHeader, hash), peek<Mirak::SlotTableHeader>(path, 0).checksum());
}

void Root::claimQueue(std::string const& table) const {
   poke(file(table, "slots"), offsetof(Mirak::SlotTableHeader, constFlags),
        Mirak::SlotTableHeader::hasChangeQueue);
   sealHeader(table);
   Tessel::QueueHeader queue{};
   queue.magic = queue.magicValue;
   queue.version = queue.formatVersion;
   queue.kestor = peek<Mirak::SlotTableHeader>(file(table, "slots"), 0).kestor;
   queue.platform = queue.platformX86;
   queue.entryKind = queue.slotEntries;
   queue.hash = queue.checksum();
   queue.next = 1;
   for (char const* name : {"tessel", "tessel.0", "tessel.1", "tessel.slots"})
      write(file(table, name), std::vector<char>(Tessel::headerFileSize));
   poke(file(table, "tessel"), 0, queue);
}

std::string Root::snapshot() const {
   std::vector<std::string> lines;
   for (auto const& entry : fs::recursive_directory_iterator(root)) {
      struct stat status {};
      lstat(entry.path().c_str(), &status);
      auto const bytes = entry.is_regular_file() ? read(entry.path()) : std::vector<char>();
      lines.push_back(fmt::format("{} {} {} {}.{} {}", entry.path().string(), status.st_mode,
                                  status.st_blocks, status.st_mtim.tv_sec, status.st_mtim.tv_nsec,
                                  std::hash<std::string_view>()({bytes.data(), bytes.size()})));
   }
   std::sort(lines.begin(), lines.end());
   return fmt::format("{}", fmt::join(lines, "\n"));
}

FlowTracking::IpFlowKey key4(u32 n) {
   auto const low = static_cast<std::uint8_t>(n), high = static_cast<std::uint8_t>(n >> 8);
   return {0,
           static_cast<Ovie::VlanId>(n % 3 ? 0 : 42),
           Ip::IpAddr({10, 1, high, low}),
           Ip::IpAddr({10, 2, 0, 1}),
           n % 2 ? Ip::Protocol::tcp : Ip::Protocol::udp,
           static_cast<std::uint16_t>(1000 + n / 65536),
           443};
}

FlowTracking::Ip6FlowKey key6(u32 n) {
   Ip::Ip6Addr::Bytes source{0x20, 0x01, 0x0d, 0xb8}, target{0x20, 0x01, 0x0d, 0xb8, 1};
   source[14] = static_cast<std::uint8_t>(n >> 8);
   source[15] = static_cast<std::uint8_t>(n);
   return {0,
           0,
           Ip::Ip6Addr(source),
           Ip::Ip6Addr(target),
           Ip::Protocol::udp,
           static_cast<std::uint16_t>(1000 + n / 65536),
           53};
}

namespace {
template <class Record> Record filled(Record record, u32 n) {
   record.packetsIs(n + 1);
   record.bytesIs(u64{1} << 40 | n);
   record.createTimeIs(1735787045.25);
   record.updateTimeIs(1735787045.25 + n);
   return record;
}
} // namespace

FlowTracking::HoIpFlowCounter counter4(u32 n) { return filled(FlowTracking::HoIpFlowCounter(key4(n)), n); }
FlowTracking::HoIp6FlowCounter counter6(u32 n) { return filled(FlowTracking::HoIp6FlowCounter(key6(n)), n); }

} // namespace ToolTest

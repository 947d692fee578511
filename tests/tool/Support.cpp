// SPDX-License-Identifier: Apache-2.0
// Running the program, and the tests' files. See Support.h.
#include "Support.h"

#include "Tessel/QueueFormat.h"

#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

namespace ToolTest {

namespace fs = std::filesystem;

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

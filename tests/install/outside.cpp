// SPDX-License-Identifier: Apache-2.0
// A program of somebody else's, built against an installed tree: it knows the public headers and the shared
// library, and nothing of the sources. It writes a row, reads it back as another process would, and gets the
// errors that it is promised as exceptions that it can tell apart.
#include <FlowTracking/Tables.h>
#include <Lomi/Exception.h>
#include <Mem/Paths.h>

#include <cstdio>

using Ops = FlowTracking::HoIpFlowCounterOps;

int main(int, char** argv) {
   Mem::RootPath::set(argv[1]);
   auto const handler = Lomi::Platform::getDebugHandler("outside", true);
   char const* const name = "outside/counter";

   FlowTracking::IpFlowKey const key(0, 42, Ip::IpAddr(Ip::IpAddr::Bytes{10, 0, 0, 1}),
                                     Ip::IpAddr(Ip::IpAddr::Bytes{10, 0, 0, 2}), Ip::Protocol::tcp, 80, 4711);
   FlowTracking::HoIpFlowCounter row(key);
   row.packetsIs(3);
   Mirak::MirakWriter<Ops> writer(*handler, name, Mirak::MapDescriptor(1000));
   writer.initialize("start");
   writer.write(row, true);

   Mirak::MirakReader<Ops> reader(*handler, name, Ops());
   if (!reader.initialize("start")) return 1;
   bool found = false;
   Ops::Value value;
   reader.lookup(key, found, &value);
   std::printf("found:%d packets:%llu\n", found, value.packets());
   try {
      reader.write(row, true);
   } catch (Lomi::NoPermissionException const& refused) {
      std::printf("%s\n", refused.what());
   }
   try {
      Mirak::MirakWriter<Ops> second(*handler, name, Mirak::MapDescriptor(1000));
      second.initialize("start");
   } catch (Lomi::InvalidInitializeException const&) {
      std::printf("one writer\n");
   }
   return 0;
}

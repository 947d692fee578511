// SPDX-License-Identifier: Apache-2.0
// The smallest agent: an entity in a tree, mounted as writer, or as reader if an argument is given. The
// README shows it, and tests/install builds and runs it against an installed library.
#include <FlowTracking/HoFlowCounterEntity.h>
#include <cstdio>
using namespace FlowTracking;

int main(int argc, char**) {
   auto const tree = Zeb::Dir::DirIs("");
   auto const flows = hoFlowCounterFactory("example");
   tree->entityIs(HoFlowCounter::mountPath("default", "example"), flows);

   Mirak::MapDescriptor descriptor(100000);
   if (argc > 1) descriptor.type = Mirak::MirakType::reader;
   flows->hoIpFlowCounterControl()->init(descriptor); // a writer adopts what an earlier one left, or throws

   HoIpFlowCounter row(IpFlowKey(0, 42, *Ip::IpAddr::fromText("192.0.2.1"),
                                 *Ip::IpAddr::fromText("198.51.100.7"), Ip::Protocol::tcp, 443, 50000));
   if (argc == 1) {
      row.packetsInc(3);
      flows->hoIpFlowCounterIs(row); // readers see it from here on
   } else {
      while (!flows->hoIpFlowCounter().ready())
         Lomi::TaskSchedulerRoot::root().run(-1); // until a writer comes
      std::printf("%llu packets\n", flows->hoIpFlowCounter(row.key()).packets());
   }
}

// Measures what a list costs on its way to the core on macOS: xpc_bridge COUNT
//
// Sends a list of COUNT names twice through the XPC client to the core, with GNUstep's Foundation and a stand-in for
// XPC, which passes the objects on without encoding them. So the figures are those of the conversion of the names into
// Foundation's objects and back, and of the database. Prints the processor time, and by how much the process grows
// during the call at most. The two lists are equal.
#include <sys/resource.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "companion/client/Client.h"
#include "database/db.h"
#include "platform/StandIn.h"
#include "platform/gnustep/xpc/Services.h"
#include "service/XPCServiceDelegate.h"

namespace orvane {
namespace {

// A line of /proc/self/status, in KiB.
double kibibytes(const std::string& wanted) {
  std::ifstream status("/proc/self/status");
  std::string name;
  double value = 0;
  while (status >> name) {
    if (name == wanted + ":") status >> value;
    status.ignore(1000, '\n');
  }
  return value;
}

double processor_seconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

void measure(size_t count) {
  stand_in::deliver_messages();  // so that the linker takes the stand-in for XPC instead of GNUstep's own classes
  stand_in::files.content = "a list";
  stand_in::files.propertyList = Value::array({});
  db_init();
  const auto listener = NSXPCListener::initWithMachServiceName(Value::string("S"));
  const auto delegate = XPCServiceDelegate::init();
  listener->setDelegate(delegate.get());
  listener->resume();
  std::vector<std::string> names;
  for (size_t i = 0; i < count; ++i) names.push_back("host-" + std::to_string(i) + ".blocked.example");
  const auto client = connect_client({.service = "S", .socket = ""});
  for (const char* list : {"first list", "replacement"}) {
    std::ofstream("/proc/self/clear_refs") << "5";  // the peak (VmHWM) begins at the present size
    const double size = kibibytes("VmRSS"), start = processor_seconds();
    client->setHostnames(names, {});
    client->ping();  // the answer comes after the list has arrived
    const double seconds = processor_seconds() - start;
    std::printf("%s of %zu names: %.3f s of processor time, at most %.0f bytes a name, %.0f afterwards\n", list, count,
                seconds, (kibibytes("VmHWM") - size) * 1024 / static_cast<double>(count),
                (kibibytes("VmRSS") - size) * 1024 / static_cast<double>(count));
  }
  db_term();
}

}  // namespace
}  // namespace orvane

int main(int count, char** arguments) {
  if (count != 2) return std::fputs("usage: xpc_bridge COUNT\n", stderr), 2;
  orvane::measure(std::strtoull(arguments[1], nullptr, 10));
}

#include "companion/client/UnitState.h"

#include <systemd/sd-bus.h>
#include <systemd/sd-daemon.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <memory>

#include "platform/linux/base/ServiceStatus.h"

namespace orvane {
namespace {

constexpr const char* kManager = "org.freedesktop.systemd1";
constexpr const char* kUnitInterface = "org.freedesktop.systemd1.Unit";
constexpr const char* kServiceInterface = "org.freedesktop.systemd1.Service";
constexpr uint64_t kTimeout = 3000000;  // microseconds

struct CloseBus {
  void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
using Bus = std::unique_ptr<sd_bus, CloseBus>;

// Connects to the system's message bus; if there is no bus, to the service manager's own socket, which only root may
// open.
Bus connect_to_manager() {
  sd_bus* bus = nullptr;
  if (sd_bus_open_system(&bus) >= 0) return Bus(bus);
  Bus direct;
  if (sd_bus_new(&bus) >= 0) direct.reset(bus);
  if (!direct || sd_bus_set_address(direct.get(), "unix:path=/run/systemd/private") < 0 ||
      sd_bus_start(direct.get()) < 0)
    return nullptr;
  return direct;
}

// Reads a unit's properties. After a failure, the reader sends no further request, so that a manager that hangs costs
// only one timeout.
class PropertyReader {
 public:
  PropertyReader(sd_bus* bus, const char* path) : bus_(bus), path_(path) {}

  std::string text(const char* interface, const char* name) {
    char* value = nullptr;
    isAnswered_ =
        isAnswered_ && sd_bus_get_property_string(bus_, kManager, path_, interface, name, nullptr, &value) >= 0;
    std::unique_ptr<char, decltype(&std::free)> owned(value, std::free);
    return value == nullptr ? "" : value;
  }
  template <class Number>
  Number number(const char* interface, const char* name, char type) {
    Number value = 0;
    isAnswered_ =
        isAnswered_ && sd_bus_get_property_trivial(bus_, kManager, path_, interface, name, nullptr, type, &value) >= 0;
    return value;
  }
  bool isAnswered() const { return isAnswered_; }

 private:
  sd_bus* bus_;
  const char* path_;
  bool isAnswered_ = true;
};

}  // namespace

const char* const kStartExtension = "sudo systemctl start orvane-se";
const char* const kStartKeeper = "sudo systemctl start orvane-keeper";
const char* const kEndLock = "wait; orvanectl(1) says how root can end the lock";

std::optional<UnitState> unit_state(const std::string& unit) {
  if (sd_booted() <= 0) return std::nullopt;
  Bus bus = connect_to_manager();
  if (!bus) return std::nullopt;
  sd_bus_set_method_call_timeout(bus.get(), kTimeout);
  char* encoded = nullptr;
  if (sd_bus_path_encode("/org/freedesktop/systemd1/unit", unit.c_str(), &encoded) < 0) return std::nullopt;
  std::unique_ptr<char, decltype(&std::free)> path(encoded, std::free);

  PropertyReader reader(bus.get(), path.get());
  UnitState state;
  state.load = reader.text(kUnitInterface, "LoadState");
  state.active = reader.text(kUnitInterface, "ActiveState");
  state.sub = reader.text(kUnitInterface, "SubState");
  const auto since = reader.number<uint64_t>(kUnitInterface, "StateChangeTimestamp", 't');
  if (since != 0) state.since = Moment(std::chrono::floor<std::chrono::seconds>(std::chrono::microseconds(since)));
  // systemd keeps the status line of a service's last run. The line of a service that has failed may be the reason of
  // the failure. But if the service was killed, the line still says that the service filters.
  if (state.active != "inactive") state.status = reader.text(kServiceInterface, "StatusText");
  if (!state.isRunning() && says_filtering(state.status)) state.status.clear();
  state.hiddenNames = hidden_names_in(state.status);
  state.result = reader.text(kServiceInterface, "Result");
  state.restarts = reader.number<uint32_t>(kServiceInterface, "NRestarts", 'u');
  return reader.isAnswered() ? std::optional(state) : std::nullopt;
}

}  // namespace orvane

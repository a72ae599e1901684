#include "companion/doctor/DoctorFacts.h"

#include <linux/capability.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>

#include "companion/client/ExtensionBundle.h"
#include "companion/client/ExtensionProbe.h"
#include "companion/client/UnitState.h"
#include "companion/doctor/ControlClients.h"
#include "companion/text/AccessGroup.h"
#include "companion/text/Input.h"
#include "platform/files/Descriptor.h"
#include "platform/files/Files.h"
#include "platform/linux/base/Command.h"
#include "platform/linux/base/ServiceStatus.h"
#include "platform/linux/base/Text.h"
#include "platform/linux/control/SocketPath.h"
#include "platform/linux/process/ProcessInformation.h"

namespace orvane {
namespace {

namespace fs = std::filesystem;

// The cgroup of the package's extension. Only root and the service manager can put a process there.
constexpr const char* kExtensionCgroup = "/system.slice/orvane-se.service";
constexpr size_t kTextLimit = size_t{8} << 20;
constexpr auto kAnswerTimeout = std::chrono::seconds(2);

std::optional<std::string> read_text(const std::string& path) {
  return read_file_start(path, kTextLimit, Links::Follow);
}

bool exists(const std::string& path) {
  std::error_code error;
  return fs::exists(path, error);
}

UnitFacts look_at_unit(const char* name) {
  UnitFacts facts;
  facts.name = name;
  const std::optional<UnitState> state = unit_state(name);
  if (!state) return facts;
  facts.known = true;
  facts.installed = state->load != "not-found";
  facts.running = state->isRunning();
  facts.isRestarting = !facts.running && state->active != "failed" && state->hasFailed();
  facts.hiddenNames = state->hiddenNames;
  facts.filtersNothing = says_filtering_nothing(state->status);
  facts.state = state->text();
  if (!state->status.empty()) facts.state += ": " + state->status;
  return facts;
}

// Connects to a socket. Returns 0 or the errno. EAGAIN (a full backlog) counts as success, because an extension listens
// there.
int try_socket(const std::string& path) {
  Descriptor connection(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!connection) return errno;
  const int failure = connect_to(path, connection);
  return failure == EAGAIN ? 0 : failure;
}

ConnectionFacts ask_extension(const std::string& socket) {
  using Outcome = ConnectionFacts::Outcome;
  ClientOptions options;
  options.socket = socket;
  const ExtensionProbe probe = probe_extension(options, kAnswerTimeout);
  return {probe.answers ? Outcome::Answered : Outcome::Silent, socket, probe.changes, probe.error};
}

// Tries the same paths as a client, in the same order. Reports the first path that accepts a connection; if none does,
// the first path that refuses or denies the connection; otherwise that there is no socket.
ConnectionFacts look_at_connection(const Examination& examination) {
  std::string error;
  std::vector<std::string> paths = examination.socket.empty() ? client_socket_paths(examination.service, &error)
                                                              : std::vector<std::string>{examination.socket};
  ConnectionFacts facts;
  for (const std::string& path : paths) {
    const int failure = try_socket(path);
    if (failure == 0) return ask_extension(path);
    if (facts.outcome != ConnectionFacts::Outcome::NoSocket) continue;
    if (failure == EACCES || failure == EPERM) facts = {ConnectionFacts::Outcome::Denied, path};
    if (failure == ECONNREFUSED) facts = {ConnectionFacts::Outcome::Refused, path};
  }
  if (facts.socket.empty())
    facts.socket = paths.empty()                ? error
                   : examination.socket.empty() ? std::string(kServiceSocketFolder) + '/' + examination.service
                                                : examination.socket;
  return facts;
}

std::string read_link(const std::string& path) {
  std::error_code error;
  return fs::read_symlink(path, error).string();
}

std::optional<uint64_t> effective_capabilities(std::string_view status) {
  constexpr std::string_view kField = "\nCapEff:\t";
  const size_t start = status.find(kField);
  if (start == std::string::npos) return std::nullopt;
  const std::string_view digits = status.substr(start + kField.size());
  return parse_number<uint64_t>(digits.substr(0, digits.find('\n')), 16);
}

// Finds the extensions in this network namespace, and those whose namespace cannot be read. Any user can give a process
// the extension's name. So a process outside the service's cgroup must also have CAP_NET_ADMIN to be taken for an
// extension.
void look_at_processes(Facts& facts) {
  const std::string table = "/proc";
  const std::string ownNamespace = read_link(table + "/self/ns/net");
  for (pid_t process : process_identifiers(table)) {
    const std::string folder = table + '/' + std::to_string(process);
    if (read_text(folder + "/comm") != "OrvaneSE\n" || !ProcessInformation::open(process, table)) continue;
    const std::string itsNamespace = read_link(folder + "/ns/net");
    if (!itsNamespace.empty() && itsNamespace != ownNamespace) continue;
    const bool isService = read_text(folder + "/cgroup").value_or("").find(kExtensionCgroup) != std::string::npos;
    const auto capabilities = effective_capabilities(read_text(folder + "/status").value_or(""));
    if (!isService && (capabilities.value_or(0) >> CAP_NET_ADMIN & 1) == 0) continue;
    facts.processes.push_back(process);
    if (facts.process != 0 && !isService) continue;
    facts.process = process;
    facts.capabilities = capabilities;
  }
  std::sort(facts.processes.begin(), facts.processes.end());
}

// Whether the kernel has IPv6. The extension makes the same check, and adds no IPv6 rules to a kernel without IPv6.
bool has_ipv6() { return exists("/proc/thread-self/net/if_inet6"); }

std::vector<std::string> missing_programs() {
  std::vector<std::string> missing;
  std::vector<const char*> programs{"iptables-restore", "iptables-save"};
  if (has_ipv6()) programs.insert(programs.end(), {"ip6tables-restore", "ip6tables-save"});
  for (const char* program : programs) {
    if (find_command(program).empty()) missing.push_back(program);
  }
  return missing;
}

// Whether the NFQUEUE target is in the kernel, or in a module that can be loaded. Nothing if the target is not loaded
// and the lists of the kernel's modules cannot be read.
std::optional<bool> has_queue_target() {
  auto has = [](const std::optional<std::string>& text, const char* word) {
    return text && text->find(word) != std::string::npos;
  };
  if (has(read_text("/proc/net/ip_tables_targets"), "NFQUEUE") || has(read_text("/proc/modules"), "xt_NFQUEUE")) {
    return true;
  }
  utsname system{};
  if (::uname(&system) != 0) return std::nullopt;
  const std::string folder = std::string("/lib/modules/") + system.release;
  const std::optional<std::string> loadable = read_text(folder + "/modules.dep");
  const std::optional<std::string> builtIn = read_text(folder + "/modules.builtin");
  if (has(loadable, "/xt_NFQUEUE.ko") || has(builtIn, "/xt_NFQUEUE.ko")) return true;
  return loadable && builtIn ? std::optional(false) : std::nullopt;
}

std::vector<RulesFacts> look_at_rules() {
  std::vector<RulesFacts> rules;
  for (const char* program : {"iptables-save", "ip6tables-save"}) {
    if (program[2] == '6' && !has_ipv6()) continue;
    CommandResult result = run_command({program});
    RulesFacts facts{program, std::nullopt, result.error};
    if (result.success) facts.rules = std::move(result.output);
    rules.push_back(std::move(facts));
  }
  return rules;
}

// The bundle of the running extension `process`. If `process` is 0 or the path of its program cannot be read, the
// package's bundle.
std::string find_bundle(pid_t process) {
  if (process != 0) {
    const fs::path program = read_link("/proc/" + std::to_string(process) + "/exe");
    const fs::path contents = program.parent_path().parent_path();
    if (contents.filename() == "Contents") return contents.parent_path().string();
  }
  return kPackageBundle;
}

// The home directory of the user who runs orvanectl; under sudo(8), of the user who ran sudo.
std::string home_directory() {
  const char* caller = ::geteuid() == 0 ? std::getenv("SUDO_USER") : nullptr;
  const passwd* user = caller != nullptr ? ::getpwnam(caller) : ::getpwuid(::getuid());
  return user != nullptr ? user->pw_dir : "";
}

// The installed browsers, with the policies and the user's profiles.
std::vector<BrowserFacts> look_at_browsers() {
  const std::string home = home_directory();
  std::vector<BrowserFacts> facts;
  for (InstalledBrowser& browser : installed_browsers(
           ApplicationFolders::system(), home.empty() ? std::vector<std::string>() : own_application_folders(home))) {
    BrowserFacts one{std::move(browser), {}, {}};
    if (one.browser.place != nullptr) one.policy = policy_in_force(*one.browser.place, kThisMachine);
    if (!home.empty()) one.profiles = browser_profiles(one.browser, home);
    facts.push_back(std::move(one));
  }
  return facts;
}

}  // namespace

Facts gather_browser_facts() {
  Facts facts;
  look_at_processes(facts);
  const std::string bundle = find_bundle(facts.process);
  facts.browserList = read_browser_list(bundle + kBrowserListInBundle);
  facts.passesHTTP3 = extension_setting(bundle, "OrvaneHTTP3") == Value::borrowed("pass");
  facts.browsers = look_at_browsers();
  return facts;
}

Facts gather_facts(const Examination& examination) {
  Facts facts = gather_browser_facts();
  facts.asRoot = ::geteuid() == 0;
  facts.extension = look_at_unit(kExtensionUnit);
  facts.keeper = look_at_unit(kKeeperUnit);
  facts.fetcher = look_at_unit(kFetcherUnit);
  facts.connection = look_at_connection(examination);
  facts.clients = control_clients(facts.connection.socket);
  facts.group = look_at_group();
  facts.missingPrograms = missing_programs();
  facts.hasQueueTarget = has_queue_target();
  if (facts.asRoot && facts.missingPrograms.empty()) facts.rules = look_at_rules();
  facts.queues = read_text("/proc/net/netfilter/nfnetlink_queue");
  try {
    facts.list = read_keeper_state(examination.keeperStatePath);
    if (facts.list) add_later_changes(*facts.list, facts.connection.changes);
  } catch (const FileError& error) {
    facts.listError = error.what();
  }
  return facts;
}

}  // namespace orvane

#include "companion/commands/Commands.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "companion/client/CallTimeout.h"
#include "companion/client/Client.h"
#include "companion/commandline/CommandSet.h"
#include "companion/commands/ProtocolCall.h"
#include "companion/text/EditDistance.h"
#include "companion/text/ExitCodes.h"
#include "companion/text/Hostname.h"
#include "companion/text/HostnameList.h"
#include "companion/text/Input.h"
#include "companion/text/Output.h"
#include "companion/text/Properties.h"
#include "companion/text/Version.h"

namespace orvane {
namespace {

// The values of all options and arguments of the command line.
struct Arguments : CommonOptions {
  std::vector<std::string> hosts;
  std::string file;
  std::string host;
  std::optional<std::string> properties;
  std::optional<std::string> until;
  double interval = 1;  // seconds
  std::string method;
  std::vector<std::string> methodArguments;
  std::vector<std::string> commandWords;
};

using ExtensionCommand = int (*)(const Arguments&);

// Prints one result: as text, or as a JSON object with one member.
void print_result(const Arguments& arguments, const char* member, const nlohmann::json& value,
                  const std::string& text) {
  if (arguments.json) {
    print_json({{member, value}});
  } else {
    std::puts(text.c_str());
  }
}

// Reports the names in the list that are not host names, and then throws InputError. `source` is the file that the
// names come from, or null if they are arguments of the command line.
void report_refusals(const HostnameList& list, const char* source) {
  for (const auto& refused : list.refused) {
    std::string where = source == nullptr ? "" : std::string(source) + ":" + std::to_string(refused.line) + ": ";
    print_error("not a host name: " + where + in_quotes(refused.text) + ": " + refused.fault);
  }
  if (list.refusedCount == 0) return;
  size_t total = list.refusedCount + list.names.size();
  throw InputError("nothing was sent: " + std::to_string(list.refusedCount) + " of " + counted(total, "name", "names") +
                   " refused: correct the names above");
}

// The names that the extension holds for the given hosts or URLs.
std::vector<std::string> checked_names(const std::vector<std::string>& hosts) {
  HostnameList list;
  for (const std::string& host : hosts) {
    note_ignored_port(host);
    list.add(list.names.size() + 1, host_in(host));
  }
  report_refusals(list, nullptr);
  return std::move(list.names);
}

// Prints the names that a command has sent, each with what the command did.
void print_names(const Arguments& arguments, const char* member, const std::vector<std::string>& names,
                 const char* outcome) {
  if (arguments.json) return print_json({{member, names}});
  for (const std::string& name : names) std::printf("%s: %s\n", shown_hostname(name).c_str(), outcome);
}

// The time limit of a call is kAnswerTime, plus a second for each kNamesPerSecond names that the call sends, because
// the extension must load them. kAnswerTime is longer than 5 s: if all connections of the extension are in use, a new
// client waits until another client has been idle for 5 s (kIdleLimit in platform/linux/control/XPC.cpp).
constexpr std::chrono::seconds kAnswerTime(10);
constexpr size_t kNamesPerSecond = 20000;

// A connection to the extension. The first call opens the connection. A call that takes too long throws.
class Connection {
 public:
  explicit Connection(const ClientOptions& options) : options_(options) {}

  // Returns work(client). `names`: how many names `work` sends.
  template <class Work>
  auto call(Work work, size_t names = 0) {
    CallTimeout limit(kAnswerTime + std::chrono::seconds(names / kNamesPerSecond));
    try {
      if (client_ == nullptr) client_ = connect_client(options_);
      limit.watch(client_->descriptor());
      return work(*client_);
    } catch (const UnresponsiveExtension&) {
      throw;
    } catch (const ClientError&) {
      if (client_ == nullptr || !limit.hasExpired()) throw;
      throw UnresponsiveExtension(
          "the extension does not answer: it hangs, or serves too many clients: see sudo orvanectl doctor");
    }
  }

 private:
  const ClientOptions& options_;
  std::unique_ptr<Client> client_;
};

int ping(const Arguments& arguments) {
  if (!Connection(arguments.client).call([](Client& client) { return client.ping(); })) {
    print_error("ping failed: the extension answered \"no\": restart it");
    return kFailed;
  }
  print_result(arguments, "ping", true, "pong");
  return kDone;
}

int state(const Arguments& arguments) {
  std::string state =
      Connection(arguments.client).call([](Client& client) { return client.appFilterState(); }) ? "active" : "inactive";
  print_result(arguments, "state", state, state);
  return kDone;
}

int changes(const Arguments& arguments) {
  uint64_t count = Connection(arguments.client).call([](Client& client) { return client.changesCount(); });
  print_result(arguments, "changes", count, std::to_string(count));
  return kDone;
}

int start(const Arguments& arguments) {
  Connection(arguments.client).call([](Client& client) { client.start(); });
  return kDone;
}

int stop(const Arguments& arguments) {
  Connection(arguments.client).call([](Client& client) { client.stop(); });
  return kDone;
}

int add(const Arguments& arguments) {
  const std::vector<std::string> names = checked_names(arguments.hosts);
  Connection(arguments.client).call([&](Client& client) { client.addHostnames(names); }, names.size());
  print_names(arguments, "added", names, "added");
  return kDone;
}

int remove(const Arguments& arguments) {
  const std::vector<std::string> names = checked_names(arguments.hosts);
  Connection(arguments.client).call([&](Client& client) { client.removeHostnames(names); }, names.size());
  print_names(arguments, "removed", names, "removed");
  return kDone;
}

void print_progress(uint64_t sent, uint64_t total) {
  constexpr double kMegabyte = 1e6;
  std::fprintf(stderr, "\rsending: %.1f of %.1f MB", static_cast<double>(sent) / kMegabyte,
               static_cast<double>(total) / kMegabyte);
  // After the last byte is sent, the extension still builds its table, and the command waits for that.
  if (sent == total) std::fputs(", the extension is loading the list", stderr);
  std::fflush(stderr);
}

int set(const Arguments& arguments) {
  HostnameList list = parse_hostname_list(read_input(arguments.file));
  const char* source = arguments.file == "-" ? "standard input" : arguments.file.c_str();
  report_refusals(list, source);
  // A list with fewer names is sent too quickly for anybody to read the progress.
  constexpr size_t kLarge = 10000;
  bool showProgress = list.names.size() >= kLarge && isatty(STDERR_FILENO) == 1;
  struct EraseLine {
    bool shown;
    ~EraseLine() {
      if (shown) std::fputs("\r\x1b[K", stderr);
    }
  } eraseAtEnd{showProgress};
  const Client::Progress progress = showProgress ? Client::Progress(print_progress) : nullptr;
  Connection(arguments.client)
      .call([&](Client& client) { client.setHostnames(list.names, progress); }, list.names.size());
  return kDone;
}

// The properties to set: the date of --dont-block-until, or JSON, which is the argument itself or comes from a file
// ("@FILE") or from standard input ("-"). Nil if the command line has neither.
Value given_properties(const Arguments& arguments) {
  if (arguments.until) return Value::dictionary({{Value::string(kDontBlockUntil), parse_time(*arguments.until)}});
  if (!arguments.properties) return Value();
  const std::string& given = *arguments.properties;
  if (given == "-") return parse_properties(read_input(given));
  return parse_properties(given.substr(0, 1) == "@" ? read_input(given.substr(1)) : given);
}

int properties(const Arguments& arguments) {
  const std::vector<std::string> names = checked_names({arguments.host});
  Value given = given_properties(arguments);
  Connection(arguments.client).call([&](Client& client) { client.setProperties(given, Value::string(names.front())); });
  print_names(arguments, given.isNil() ? "cleared" : "set", names,
              given.isNil() ? "properties cleared" : "properties set");
  return kDone;
}

bool flush_output() { return std::fflush(stdout) == 0 && std::ferror(stdout) == 0; }

int watch(const Arguments& arguments) {
  if (!(arguments.interval >= 0.01 && arguments.interval <= 86400))
    throw InputError("bad command line: watch: --interval: give 0.01 to 86400 seconds");
  Connection connection(arguments.client);
  // An interrupt is the normal end of a watch. Exit at once, even during a call that is never answered. No output is
  // lost, because all of it is flushed before the call.
  for (int signal : {SIGINT, SIGTERM}) std::signal(signal, [](int) { _exit(kDone); });
  std::optional<uint64_t> shown;
  while (flush_output()) {
    uint64_t count = connection.call([](Client& client) { return client.changesCount(); });
    if (count != shown) print_result(arguments, "changes", count, std::to_string(count));
    shown = count;
    if (!flush_output()) break;
    std::this_thread::sleep_for(std::chrono::duration<double>(arguments.interval));
  }
  return kDone;  // run_orvanectl() reports the output's error
}

int call(const Arguments& arguments) {
  ProtocolCall send = prepare_call(arguments.method, arguments.methodArguments);
  std::string reply = Connection(arguments.client).call(send);
  if (!reply.empty()) print_result(arguments, "reply", reply, reply);
  return kDone;
}

int run(int argc, const char* const* argv);

// An error that contains the unknown word, and suggests the command with the nearest name. `path`: the program's name
// and the words that lead to `parent`.
InputError unknown_command(const CLI::App& parent, const std::string& path, const std::string& word) {
  size_t nearest = 3;  // only a command at a smaller distance is suggested
  std::string advice = "see " + path + " --help";
  for (const CLI::App* command : parent.get_subcommands(nullptr)) {
    const size_t distance = edit_distance(word, command->get_name());
    if (distance < nearest) advice = "did you mean " + command->get_name() + "?";
    nearest = std::min(nearest, distance);
  }
  return InputError("unknown command: " + in_quotes(word) + ": " + advice);
}

// Prints the help of a command, or without a command, the program's.
int help(const CLI::App& program, const std::vector<std::string>& words) {
  const CLI::App* command = &program;
  std::string path = "orvanectl";
  std::vector<const char*> line{"orvanectl"};
  for (const std::string& word : words) {
    const auto known = command->get_subcommands([&](const CLI::App* each) { return each->get_name() == word; });
    if (known.empty()) throw unknown_command(*command, path, word);
    command = known.front();
    path += ' ' + word;
    line.push_back(word.c_str());
  }
  line.push_back("--help");
  return run(static_cast<int>(line.size()), line.data());
}

// Declares the commands for the running extension. Parsing the command line fills `arguments`.
void declare_commands(CommandSet& commands, Arguments& arguments) {
  auto declare = [&](const char* name, const char* description, ExtensionCommand command) {
    return commands.declare(commands.app, kExtensionGroup, name, description,
                            [&arguments, command] { return command(arguments); });
  };
  declare("ping", "Check that the extension answers; prints \"pong\"", ping);
  declare("state",
          "Print the state of the application filter, always \"inactive\"; for the filter of hosts: see status", state);
  declare("changes", "Print how many edits the extension has received since its start", changes);
  declare("start", "Send the start command", start);
  declare("stop", "Send the stop command", stop);

  const char* hosts = "Host names or URLs, in any spelling that browsers accept";
  declare("add", "Block hosts until the extension ends or the list changes", add)
      ->add_option("HOST", arguments.hosts, hosts)
      ->required()
      ->type_name("");
  declare("remove", "Stop blocking hosts until the extension ends or the list changes", remove)
      ->add_option("HOST", arguments.hosts, hosts)
      ->required()
      ->type_name("");
  declare("set", "Block the hosts of a file and no others, until the extension ends or the list changes", set)
      ->add_option("FILE", arguments.file, "One host name a line, \"#\" for comments; \"-\" for standard input")
      ->required()
      ->type_name("");

  CLI::App* propertiesCommand =
      declare("properties", "Replace a host's properties; without JSON, clear them", properties);
  propertiesCommand->add_option("HOST", arguments.host, "A blocked host")->required()->type_name("");
  auto* json = propertiesCommand
                   ->add_option("JSON", arguments.properties,
                                "A JSON object; \"@FILE\" reads it from a file, \"-\" from standard input")
                   ->type_name("");
  propertiesCommand
      ->add_option("--dont-block-until", arguments.until, "Suspend until a time, as in 2030-01-31T18:00:00+01:00")
      ->type_name("TIME")
      ->excludes(json);

  CLI::App* watchCommand = declare("watch", "Print the number of edits, now and after each change", watch);
  watchCommand->add_option("--interval", arguments.interval, "Seconds between two requests")
      ->type_name("SECONDS")
      ->capture_default_str();

  CLI::App* callCommand = declare("call", "Send one message of the protocol, with unchanged arguments", call);
  callCommand->add_option("METHOD", arguments.method, "The method's name")->required()->type_name("");
  callCommand->add_option("ARGUMENT", arguments.methodArguments, "The method's arguments")->type_name("");
  callCommand->footer(describe_methods());

  commands
      .declare(commands.app, "Help", "help", "Print the help of a command, as its --help does",
               [&program = commands.app, &arguments] { return help(program, arguments.commandWords); })
      ->add_option("COMMAND", arguments.commandWords, "A command's name; without it, all commands are listed")
      ->type_name("");
}

// The words of the command line. If "--" is one of them, it is moved before all names: CLI11 would refuse a "--" after
// the first of several names.
std::vector<std::string> words_in_order(const CLI::App& app, int argc, const char* const* argv) {
  std::vector<std::string> words(argv + 1, argv + argc), names;
  const auto mark = std::find(words.begin(), words.end(), "--");
  if (mark == words.end()) return words;
  const CLI::App* command = &app;
  std::vector<std::string> ordered;  // without the names
  for (auto word = words.begin(); word != mark; ++word) {
    const auto known = command->get_subcommands([&](const CLI::App* each) { return each->get_name() == *word; });
    const bool isOption = word->size() > 1 && word->front() == '-';
    (known.empty() && !isOption ? names : ordered).push_back(*word);
    if (!known.empty()) command = known.front();
    const CLI::Option* option = nullptr;
    for (const CLI::App* each = command; isOption && each != nullptr && option == nullptr; each = each->get_parent())
      option = each->get_option_no_throw(*word);
    if (option != nullptr && option->get_items_expected_max() > 0 && word + 1 != mark) ordered.push_back(*++word);
  }
  ordered.insert(ordered.end(), {"--"});
  ordered.insert(ordered.end(), names.begin(), names.end());
  ordered.insert(ordered.end(), mark + 1, words.end());
  return ordered;
}

// Throws for an argument in square brackets, which CLI11 would parse as a list and split.
void refuse_brackets(int argc, const char* const* argv) {
  for (int i = 1; i < argc; ++i) {
    std::string_view text = argv[i];
    if (text.size() < 2 || text.front() != '[' || text.back() != ']') continue;
    if (is_ip_address(text)) throw InputError("bad command line: " + in_quotes(text) + ": " + kAddressFault);
    throw InputError("bad command line: " + in_quotes(text) +
                     ": an argument in square brackets is not supported: give a file as ./[FILE]");
  }
}

// Call this if the command line needs a command below `parent`, but has no known one. `depth` words of the command line
// (apart from options) lead to `parent`; `path` consists of the program's name and these words. Throws
// unknown_command() for the next word. Returns if there is no further word.
void refuse_unknown_command(const CLI::App& parent, size_t depth, const std::string& path, int argc,
                            const char* const* argv) {
  size_t words = 0;
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    if (word.rfind("--", 0) == 0 && word.find('=') == std::string::npos && word != "--json") ++i;  // skip the value
    if (word.rfind('-', 0) == 0 || words++ < depth) continue;
    throw unknown_command(parent, path, word);
  }
}

// Prints help as CLI11 does, and says in the help of a command where the options of all commands are.
class HelpFormatter : public CLI::Formatter {
 public:
  HelpFormatter() { label("SUBCOMMAND", "COMMAND"); }
  std::string make_footer(const CLI::App* app) const override {
    std::string footer = CLI::Formatter::make_footer(app);
    if (app->get_parent() != nullptr) {
      footer += "\nOptions of all commands, such as --json and --list: see orvanectl --help\n";
    }
    return footer;
  }
};

int run(int argc, const char* const* argv) {
  Arguments arguments;
  Command command;
  CLI::App app("Chooses the hosts that OrvaneSE blocks in browsers.", "orvanectl");
  app.formatter(std::make_shared<HelpFormatter>());  // the commands that are declared below inherit it
  app.set_version_flag("--version", std::string("orvanectl ") + program_version());
  app.add_option("--service", arguments.client.service, "The extension's service name")
      ->type_name("NAME")
      ->capture_default_str();
  app.add_flag("--json", arguments.json, "Print results as JSON");
  app.footer("Exit codes: 0 success, 1 failure, 2 invalid command line or input (nothing was done).");
  app.require_subcommand(1);
  CommandSet commands{app, arguments, command};
  declare_system_commands(commands, arguments);
  declare_commands(commands, arguments);
  refuse_brackets(argc, argv);
  try {
    std::vector<std::string> words = words_in_order(app, argc, argv);
    std::reverse(words.begin(), words.end());  // parse() takes them from the end
    app.parse(std::move(words));
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) return app.exit(error);
    const CLI::App* last = &app;  // the last known command on the command line
    std::string path = app.get_name();
    size_t depth = 0;
    for (; !last->get_subcommands().empty(); ++depth) {
      last = last->get_subcommands().front();
      path += ' ' + last->get_name();
    }
    if (!last->get_subcommands(nullptr).empty()) refuse_unknown_command(*last, depth, path, argc, argv);
    constexpr size_t kShown = 200;
    std::string fault = error.what();  // may contain all words of a long command line
    const std::vector<std::string> unknown = app.remaining(true);
    const auto option =
        std::find_if(unknown.begin(), unknown.end(), [](const std::string& word) { return word.starts_with('-'); });
    const bool isTooMuch = error.get_exit_code() == static_cast<int>(CLI::ExitCodes::ExtrasError);
    if (fault == "A subcommand is required") fault = "a command is missing";
    if (option != unknown.end() && (isTooMuch || fault == "a command is missing"))
      fault = "unknown option: " + in_quotes(*option);
    else if (isTooMuch && !unknown.empty())
      fault = "unexpected: " + in_quotes(unknown.front());
    if (fault.size() > kShown) fault.replace(kShown, std::string::npos, "...");
    const bool takesNames = !last->get_options([](const CLI::Option* each) { return each->get_positional(); }).empty();
    if (option != unknown.end() && takesNames) fault += ": if a name begins with a hyphen, write -- before it";
    throw InputError("bad command line: " + fault + ": see " + path + " --help");
  }
  return command();
}

// Looks at the words themselves, because an invalid command line is not parsed to its end.
bool asks_for_json(int argc, const char* const* argv) {
  return std::any_of(argv + 1, argv + argc, [](const char* word) { return std::string_view(word) == "--json"; });
}

}  // namespace

int run_orvanectl(int argc, const char* const* argv) {
  const bool isJson = asks_for_json(argc, argv);
  if (isJson) collect_errors();
  int code = kFailed;
  try {
    code = run(argc, argv);
  } catch (const InputError& error) {
    print_error(error.what());
    code = kUsage;
  } catch (const std::bad_alloc&) {
    print_error("out of memory: the input is too large: split it");
  } catch (const std::exception& error) {
    print_error(error.what());
  }
  if (code != kDone && isJson) print_errors_as_json();
  if (flush_output()) return code;
  print_error(std::string("cannot write to standard output: ") + std::strerror(errno) + ": check where it leads");
  return kFailed;
}

}  // namespace orvane

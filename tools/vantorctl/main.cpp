// vantorctl: the command-line client of vantord. It asks how much space the
// registered services could free on a volume, and reads and writes the state
// vantord keeps for clients. Arguments are checked before the bus is touched,
// and every outcome has its own exit status (see kMainHelp).

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "client.h"
#include "json.h"
#include "volume.h"

namespace {

using vantor::Value;
using vantor::ctl::DaemonClient;
using vantor::ctl::ExitCode;
using vantor::ctl::Failure;
using vantor::ctl::PurgeableView;

constexpr char kMainSynopsis[] =
    "usage: vantorctl [--bus ADDRESS] [--json] COMMAND [ARGUMENTS]\n"
    "       commands: purgeable, state get, state set, state unset, help\n";

constexpr char kMainHelp[] =
    "usage: vantorctl [--bus ADDRESS] [--json] COMMAND [ARGUMENTS]\n"
    "\n"
    "Talks to vantord, the daemon that coordinates reclaiming disk space: asks how\n"
    "much space the services registered with it could free on a volume, and reads\n"
    "and writes the small state it keeps for its clients.\n"
    "\n"
    "Commands:\n"
    "  purgeable [VOLUME]    how much space each service could free on VOLUME\n"
    "                        (default /); see 'vantorctl help purgeable'\n"
    "  state get KEY         print the value stored under KEY\n"
    "  state set KEY VALUE   store VALUE under KEY (--type says how to read it)\n"
    "  state unset KEY       remove KEY; see 'vantorctl help state'\n"
    "  help [COMMAND]        this text, or the details of COMMAND\n"
    "\n"
    "Options, before or after the command:\n"
    "  --bus ADDRESS  use the D-Bus bus at ADDRESS (e.g. unix:path=/run/test-bus)\n"
    "                 instead of the system bus; DBUS_SYSTEM_BUS_ADDRESS, when set,\n"
    "                 is taken as the system bus's address\n"
    "  --json         print results as JSON, for scripts\n"
    "  -h, --help     show help; after a command, that command's help\n"
    "\n"
    "Exit status:\n"
    "  0  success\n"
    "  1  vantord refused the request; its reason is printed\n"
    "  2  bad arguments\n"
    "  3  vantord is not running, or the bus cannot be reached\n"
    "  4  not entitled: vantord's entitlement policy does not grant this user\n"
    "     the call\n"
    "  5  any other D-Bus failure, including no answer within 60 seconds\n"
    "\n"
    "Every call needs CLIENT_ENTITLEMENT from the entitlement policy in\n"
    "/etc/vantor/entitlements.d; purgeable needs PURGEABLE_ENTITLEMENT as well\n"
    "(ITEMIZED_PURGEABLE_ENTITLEMENT with --itemized).\n"
    "\n"
    "Examples:\n"
    "  vantorctl purgeable\n"
    "  vantorctl purgeable --urgency 4 /home\n"
    "  vantorctl --json purgeable --itemized\n"
    "  vantorctl state set --type boolean VANTOR_CACHE_ENABLED false\n";

constexpr char kPurgeableSynopsis[] =
    "usage: vantorctl [--bus ADDRESS] [--json] purgeable\n"
    "                 [--urgency N | --urgency-limit N] [--itemized] [VOLUME]\n";

constexpr char kPurgeableHelp[] =
    "usage: vantorctl [--bus ADDRESS] [--json] purgeable\n"
    "                 [--urgency N | --urgency-limit N] [--itemized] [VOLUME]\n"
    "\n"
    "Asks vantord how much space its services could free on VOLUME and prints one\n"
    "line per service with the amount it offers, then the total and the volume.\n"
    "A service asked recently is not asked again: vantord answers from what it\n"
    "remembers of its last answer.\n"
    "\n"
    "VOLUME is a mount point, or any existing path, which stands for the volume\n"
    "holding it; the default is /. A VOLUME that does not exist is sent as given,\n"
    "and vantord refuses it (exit status 1), as it refuses file systems that are\n"
    "not local volumes, such as /proc or a tmpfs.\n"
    "\n"
    "Options:\n"
    "  --urgency N        how badly the space is needed, from 1 (least) to 4\n"
    "                     (most); vantord assumes 3. Services may offer more at a\n"
    "                     higher urgency, and at 4 vantord waits longer for slow\n"
    "                     ones.\n"
    "  --urgency-limit N  the highest urgency, 1 to 4, a purge would go up to; the\n"
    "                     amounts are those at that urgency. vantord reads it only\n"
    "                     without --urgency, so the two exclude each other.\n"
    "  --itemized         make the itemized call, which needs\n"
    "                     ITEMIZED_PURGEABLE_ENTITLEMENT instead of\n"
    "                     PURGEABLE_ENTITLEMENT; the answer is the same\n"
    "  --json             print vantord's answer as one JSON object: service IDs\n"
    "                     to bytes, \"VANTOR_VOLUME\" and \"VANTOR_TOTAL_AVAILABLE\"\n"
    "\n"
    "Sizes are shown in B, KiB, MiB and GiB (powers of 1024) with one decimal;\n"
    "--json gives bytes. Exit statuses are listed by 'vantorctl help'; a user\n"
    "without the purgeable entitlement gets 4.\n"
    "\n"
    "Examples:\n"
    "  vantorctl purgeable\n"
    "  vantorctl purgeable --urgency 4 ~/Downloads\n"
    "  vantorctl --json purgeable / | jq .VANTOR_TOTAL_AVAILABLE\n";

constexpr char kStateSynopsis[] =
    "usage: vantorctl [--bus ADDRESS] [--json] state get KEY\n"
    "       vantorctl [--bus ADDRESS] state set [--type TYPE] KEY VALUE\n"
    "       vantorctl [--bus ADDRESS] state unset KEY\n";

constexpr char kStateHelp[] =
    "usage: vantorctl [--bus ADDRESS] [--json] state get KEY\n"
    "       vantorctl [--bus ADDRESS] state set [--type TYPE] KEY VALUE\n"
    "       vantorctl [--bus ADDRESS] state unset KEY\n"
    "\n"
    "vantord keeps a few values for its clients under string keys, across\n"
    "restarts.\n"
    "\n"
    "  state get KEY        print the value under KEY, or (null) when there is\n"
    "                       none. Strings print as they are, other values in\n"
    "                       vantord's notation; with --json the output is\n"
    "                       {\"key\":KEY,\"value\":VALUE}, VALUE null when there is none\n"
    "  state set KEY VALUE  store VALUE under KEY\n"
    "  state unset KEY      remove KEY\n"
    "\n"
    "  --type TYPE          how 'state set' reads VALUE: string (the default),\n"
    "                       integer, boolean (true/false, yes/no, 1/0) or real\n"
    "\n"
    "VANTOR_CACHE_ENABLED (a boolean, true unless set) tells services whether to\n"
    "keep caches; setting it notifies the services that asked to hear of it.\n"
    "VANTOR_USER_DEFAULTS reads the whole state, defaults included, as one\n"
    "dictionary once anything has been stored.\n"
    "\n"
    "Examples:\n"
    "  vantorctl state set --type boolean VANTOR_CACHE_ENABLED false\n"
    "  vantorctl state get VANTOR_CACHE_ENABLED\n"
    "  vantorctl --json state get VANTOR_USER_DEFAULTS\n";

// A bad command line: reported with the synopsis of the command at hand and
// exit status 2, before anything is sent.
struct UsageError {
  std::string message;
};

struct CommandLine {
  std::optional<std::string> bus;
  bool json = false;
  bool help = false;
  bool itemized = false;
  std::optional<std::string> urgency;
  std::optional<std::string> urgencyLimit;
  std::optional<std::string> type;
  std::set<std::string> optionsGiven;
  std::vector<std::string> words;  // the command, its subcommand and operands
};

// Options may stand anywhere; "--" ends them, so a key or value that starts
// with "--" can follow it. Single-dash words other than -h are operands,
// which keeps negative numbers usable as values.
void parse(int argc, char** argv, CommandLine& line) {
  bool operandsOnly = false;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (!operandsOnly && arg == "--") {
      operandsOnly = true;
      continue;
    }
    if (operandsOnly || (arg != "-h" && !arg.starts_with("--"))) {
      line.words.push_back(arg);
      continue;
    }
    if (arg == "-h") {
      line.help = true;
      continue;
    }
    const auto equals = arg.find('=');
    const std::string name = arg.substr(0, equals);
    std::optional<std::string> inlineValue;
    if (equals != std::string::npos)
      inlineValue = arg.substr(equals + 1);
    auto value = [&]() -> std::string {
      if (inlineValue)
        return *inlineValue;
      if (i + 1 >= argc)
        throw UsageError{name + " needs a value"};
      return argv[++i];
    };
    auto flag = [&](bool& target) {
      if (inlineValue)
        throw UsageError{name + " takes no value"};
      target = true;
    };
    if (name == "--help") {
      flag(line.help);
    } else if (name == "--json") {
      flag(line.json);
    } else if (name == "--itemized") {
      flag(line.itemized);
    } else if (name == "--bus") {
      line.bus = value();
    } else if (name == "--urgency") {
      line.urgency = value();
    } else if (name == "--urgency-limit") {
      line.urgencyLimit = value();
    } else if (name == "--type") {
      line.type = value();
    } else {
      throw UsageError{"unknown option " + name};
    }
    line.optionsGiven.insert(name);
  }
}

const char* synopsisFor(const CommandLine& line) {
  const std::string command = line.words.empty() ? "" : line.words.front();
  if (command == "purgeable")
    return kPurgeableSynopsis;
  if (command == "state")
    return kStateSynopsis;
  return kMainSynopsis;
}

// Refuses the options of other commands, so a misplaced one is not ignored.
void allowOnly(const CommandLine& line, const std::string& what,
               std::initializer_list<std::string_view> allowed) {
  static constexpr std::string_view kEverywhere[] = {"--help", "--json", "--bus"};
  for (const auto& name : line.optionsGiven) {
    if (std::find(std::begin(kEverywhere), std::end(kEverywhere), name) == std::end(kEverywhere) &&
        std::find(allowed.begin(), allowed.end(), name) == allowed.end()) {
      throw UsageError{name + " does not apply to " + what};
    }
  }
}

std::int64_t parseUrgency(const std::string& option, const std::string& text) {
  int urgency = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), urgency);
  if (error != std::errc() || end != text.data() + text.size() || urgency < 1 || urgency > 4)
    throw UsageError{option + " needs a number from 1 to 4, not '" + text + "'"};
  return urgency;
}

Value parseTypedValue(const std::string& type, const std::string& text) {
  const char* begin = text.data();
  const char* end = text.data() + text.size();
  if (type == "string")
    return Value(text);
  if (type == "integer") {
    std::int64_t number = 0;
    const auto [stop, error] = std::from_chars(begin, end, number);
    if (error != std::errc() || stop != end || text.empty())
      throw UsageError{"--type integer needs a whole number, not '" + text + "'"};
    return Value(number);
  }
  if (type == "real") {
    double number = 0;
    const auto [stop, error] = std::from_chars(begin, end, number);
    if (error != std::errc() || stop != end || text.empty() || !std::isfinite(number))
      throw UsageError{"--type real needs a finite number, not '" + text + "'"};
    return Value(number);
  }
  if (type == "boolean") {
    std::string lower = text;
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (lower == "true" || lower == "yes" || lower == "1")
      return Value(true);
    if (lower == "false" || lower == "no" || lower == "0")
      return Value(false);
    throw UsageError{"--type boolean needs true or false, not '" + text + "'"};
  }
  throw UsageError{"unknown --type '" + type + "' (string, integer, boolean or real)"};
}

// Sizes in powers of 1024 with one decimal; below 1 KiB in whole bytes.
std::string formatBytes(std::uint64_t bytes) {
  static constexpr const char* kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  if (bytes < 1024)
    return std::to_string(bytes) + " B";
  double amount = static_cast<double>(bytes);
  std::size_t unit = 0;
  // 1023.95 would print as 1024.0 of the smaller unit.
  while (unit + 1 < std::size(kUnits) && amount >= 1023.95) {
    amount /= 1024;
    ++unit;
  }
  char text[32];
  std::snprintf(text, sizeof text, "%.1f %s", amount, kUnits[unit]);
  return text;
}

std::string amountText(const Value& amount) {
  if (amount.type() == Value::Type::kUnsigned)
    return formatBytes(amount.get<std::uint64_t>());
  if (amount.isNumber()) {
    const std::int64_t n = amount.int64Value();
    if (n < 0)
      return "-" + formatBytes(std::uint64_t{0} - static_cast<std::uint64_t>(n));
    return formatBytes(static_cast<std::uint64_t>(n));
  }
  return amount.description();
}

void printJson(const Value& value) {
  std::printf("%s\n", vantor::ctl::toJson(value).c_str());
}

// One line per service, then the total, sizes right-aligned, then the volume.
void printPurgeable(const Value::Dictionary& answer) {
  std::vector<std::pair<std::string, std::string>> rows;
  for (const auto& [id, amount] : answer) {
    if (id != "VANTOR_VOLUME" && id != "VANTOR_TOTAL_AVAILABLE")
      rows.emplace_back(id, amountText(amount));
  }
  if (rows.empty())
    std::printf("No service offers space on this volume.\n");
  const auto total = answer.find("VANTOR_TOTAL_AVAILABLE");
  rows.emplace_back("Total", total != answer.end() ? amountText(total->second) : "?");
  const auto volume = answer.find("VANTOR_VOLUME");
  const std::string volumeText =
      volume != answer.end() && volume->second.isString() ? volume->second.get<std::string>() : "?";

  std::size_t labelWidth = std::string_view("Volume").size();
  std::size_t sizeWidth = 0;
  for (const auto& [label, size] : rows) {
    labelWidth = std::max(labelWidth, label.size());
    sizeWidth = std::max(sizeWidth, size.size());
  }
  for (const auto& [label, size] : rows) {
    std::printf("%-*s  %*s\n", static_cast<int>(labelWidth), label.c_str(),
                static_cast<int>(sizeWidth), size.c_str());
  }
  std::printf("%-*s  %s\n", static_cast<int>(labelWidth), "Volume", volumeText.c_str());
}

int runPurgeable(const CommandLine& line) {
  allowOnly(line, "purgeable", {"--urgency", "--urgency-limit", "--itemized"});
  if (line.words.size() > 2)
    throw UsageError{"purgeable takes one VOLUME at most"};
  if (line.urgency && line.urgencyLimit)
    throw UsageError{"give --urgency or --urgency-limit, not both"};
  Value::Dictionary info{{"VANTOR_VOLUME", Value(vantor::ctl::volumeForPath(
                                               line.words.size() == 2 ? line.words[1] : "/"))}};
  if (line.urgency)
    info.emplace("VANTOR_URGENCY", Value(parseUrgency("--urgency", *line.urgency)));
  if (line.urgencyLimit)
    info.emplace("VANTOR_URGENCY_LIMIT",
                 Value(parseUrgency("--urgency-limit", *line.urgencyLimit)));

  DaemonClient client(line.bus);
  const Value::Dictionary answer =
      client.purgeable(line.itemized ? PurgeableView::kItemized : PurgeableView::kTotals, info);
  if (line.json) {
    printJson(Value(answer));
  } else {
    printPurgeable(answer);
  }
  return 0;
}

int runState(const CommandLine& line) {
  const std::string sub = line.words.size() >= 2 ? line.words[1] : "";
  if (sub == "get" || sub == "unset") {
    allowOnly(line, "state " + sub, {});
    if (line.words.size() != 3)
      throw UsageError{"state " + sub + " takes one KEY"};
  } else if (sub == "set") {
    allowOnly(line, "state set", {"--type"});
    if (line.words.size() != 4)
      throw UsageError{"state set takes KEY and VALUE"};
  } else if (sub.empty()) {
    throw UsageError{"state needs get, set or unset"};
  } else {
    throw UsageError{"unknown state command '" + sub + "'"};
  }
  const std::string& key = line.words[2];

  if (sub == "get") {
    DaemonClient client(line.bus);
    const Value value = client.getState(key);
    if (line.json) {
      printJson(Value(Value::Dictionary{{"key", Value(key)}, {"value", value}}));
    } else if (value.isString()) {
      std::printf("%s\n", value.get<std::string>().c_str());
    } else {
      std::printf("%s\n", value.description().c_str());
    }
  } else if (sub == "set") {
    const Value value = parseTypedValue(line.type.value_or("string"), line.words[3]);
    DaemonClient(line.bus).setState(key, value);
  } else {
    DaemonClient(line.bus).setState(key, Value());
  }
  return 0;
}

int run(const CommandLine& line) {
  const std::string command = line.words.empty() ? "" : line.words.front();
  if (command == "help" || line.help) {
    const std::string topic =
        command == "help" ? (line.words.size() > 1 ? line.words[1] : "") : command;
    if (topic.empty())
      std::fputs(kMainHelp, stdout);
    else if (topic == "purgeable")
      std::fputs(kPurgeableHelp, stdout);
    else if (topic == "state")
      std::fputs(kStateHelp, stdout);
    else
      throw UsageError{"no help for unknown command '" + topic + "'"};
    return 0;
  }
  if (command.empty())
    throw UsageError{"no command given"};
  if (command == "purgeable")
    return runPurgeable(line);
  if (command == "state")
    return runState(line);
  throw UsageError{"unknown command '" + command + "'"};
}

}  // namespace

int main(int argc, char** argv) {
  CommandLine line;
  try {
    parse(argc, argv, line);
    return run(line);
  } catch (const UsageError& error) {
    std::fprintf(stderr, "vantorctl: %s\n%sRun 'vantorctl help' for details.\n",
                 error.message.c_str(), synopsisFor(line));
    return static_cast<int>(ExitCode::kUsage);
  } catch (const Failure& failure) {
    std::fprintf(stderr, "vantorctl: %s\n", failure.what());
    return static_cast<int>(failure.code());
  } catch (const std::exception& error) {
    std::fprintf(stderr, "vantorctl: %s\n", error.what());
    return static_cast<int>(ExitCode::kBusFailure);
  }
}

// vantorctl's command line, read with CLI11: each command is a subcommand
// that holds its own options and operands, so CLI11 refuses an option given
// to a command it does not apply to, counts the operands and checks the
// values; the options every command takes (--bus, --json, -h) belong to the
// tool and are reached from any command by fallthrough.
//
// Options may stand anywhere, also before the command; "--" ends them, and
// single-dash words other than -h are operands, which keeps negative numbers
// usable as values. CLI11 wants a subcommand before its options and reads
// "-x" as an option, so the words are first put in that order: the command
// (and state's action), the options with their values joined on, then "--"
// and the remaining operands.

#include "cli.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <vector>

#include <CLI/CLI.hpp>

#include "purge.h"

namespace vantor::ctl {
namespace {

// Plain decimal, rewritten without leading zeros: CLI11's own conversion
// would take "-5" for a huge unsigned number and "010" for octal.
const CLI::Validator kSeconds(
    [](std::string& text) {
      std::uint64_t seconds = 0;
      const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
      if (error != std::errc() || end != text.data() + text.size())
        return "needs a whole number of seconds, not '" + text + "'";
      text = std::to_string(seconds);
      return std::string();
    },
    "SECONDS");

// SIZE with a binary suffix, rewritten to bytes.
const CLI::Validator kSize(
    [](std::string& text) {
      const auto bytes = parseSize(text);
      if (!bytes)
        return "SIZE must be bytes or a number with K, M, G or T, not '" + text + "'";
      text = std::to_string(*bytes);
      return std::string();
    },
    "SIZE");

Value typedValue(const std::string& type, const std::string& text) {
  const char* begin = text.data();
  const char* end = text.data() + text.size();
  if (type == "integer") {
    std::int64_t number = 0;
    const auto [stop, error] = std::from_chars(begin, end, number);
    if (error != std::errc() || stop != end || text.empty())
      throw UsageError{"--type integer needs a whole number, not '" + text + "'", "state"};
    return Value(number);
  }
  if (type == "real") {
    double number = 0;
    const auto [stop, error] = std::from_chars(begin, end, number);
    if (error != std::errc() || stop != end || text.empty() || !std::isfinite(number))
      throw UsageError{"--type real needs a finite number, not '" + text + "'", "state"};
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
    throw UsageError{"--type boolean needs true or false, not '" + text + "'", "state"};
  }
  return Value(text);
}

// The command `name` of `app`, or null.
const CLI::App* findCommand(const CLI::App& app, const std::string& name) {
  const auto found =
      app.get_subcommands([&](const CLI::App* command) { return command->get_name() == name; });
  return found.empty() ? nullptr : found.front();
}

// Whether the option `name` ("--bus") of the tool or any command reads the
// next word as its value.
bool takesValue(const CLI::App& app, const std::string& name) {
  if (const CLI::Option* option = app.get_option_no_throw(name))
    return option->get_items_expected_min() > 0;
  const auto commands = app.get_subcommands([](const CLI::App*) { return true; });
  return std::any_of(commands.begin(), commands.end(),
                     [&](const CLI::App* command) { return takesValue(*command, name); });
}

// The words in the order CLI11 reads them (see the top of this file).
// `command` is set to the first operand, the command.
std::vector<std::string> reorder(const CLI::App& app, int argc, char** argv, std::string& command) {
  std::vector<std::string> options;
  std::vector<std::string> operands;
  bool operandsOnly = false;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (!operandsOnly && arg == "--") {
      operandsOnly = true;
    } else if (operandsOnly || (arg != "-h" && !arg.starts_with("--"))) {
      operands.push_back(arg);
    } else if (arg.find('=') == std::string::npos && i + 1 < argc && takesValue(app, arg)) {
      options.push_back(arg + "=" + argv[++i]);
    } else {
      options.push_back(arg);
    }
  }
  const std::size_t lead =
      std::min<std::size_t>(operands.size(), !operands.empty() && operands[0] == "state" ? 2 : 1);
  command = operands.empty() ? "" : operands[0];
  std::vector<std::string> words(operands.begin(), operands.begin() + lead);
  words.insert(words.end(), options.begin(), options.end());
  if (lead < operands.size()) {
    words.push_back("--");
    words.insert(words.end(), operands.begin() + lead, operands.end());
  }
  return words;
}

}  // namespace

CommandLine parseCommandLine(int argc, char** argv) {
  CommandLine line;
  std::string type = "string";
  std::string valueText;

  CLI::App app("vantorctl");
  app.set_help_flag();  // the hand-written help texts are printed instead
  app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
  app.option_defaults()->disable_flag_override();
  app.require_subcommand(0, 1)->fallthrough();
  app.add_option("--bus", line.bus);
  CLI::Option* json = app.add_flag("--json", line.json);
  CLI::Option* help = app.add_flag("-h,--help", line.help);

  const auto addUrgency = [&line](CLI::App* command) {
    const auto levels = CLI::IsMember({"1", "2", "3", "4"});
    CLI::Option* urgency = command->add_option("--urgency", line.urgency)->check(levels);
    command->add_option("--urgency-limit", line.urgencyLimit)->check(levels)->excludes(urgency);
  };
  CLI::App* purgeable = app.add_subcommand("purgeable");
  addUrgency(purgeable);
  purgeable->add_flag("--itemized", line.itemized);
  purgeable->add_option("VOLUME", line.volume);

  CLI::App* purge = app.add_subcommand("purge");
  addUrgency(purge);
  purge->add_option("--timeout", line.timeout)->transform(kSeconds);
  purge->add_option("SIZE", line.size)->required()->transform(kSize);
  purge->add_option("VOLUME", line.volume);

  CLI::App* state = app.add_subcommand("state")->require_subcommand(1);
  state->add_subcommand("get")->add_option("KEY", line.key)->required();
  state->add_subcommand("unset")->add_option("KEY", line.key)->required();
  CLI::App* set = state->add_subcommand("set");
  set->add_option("--type", type)->check(CLI::IsMember({"string", "integer", "boolean", "real"}));
  set->add_option("KEY", line.key)->required();
  set->add_option("VALUE", valueText)->required();

  for (const char* name : {"cancel", "status", "services", "history"})
    app.add_subcommand(name);
  app.add_subcommand("stats")->add_flag("--prometheus", line.prometheus)->excludes(json);
  // help ignores whatever follows its topic, options included.
  app.add_subcommand("help")->fallthrough(false)->allow_extras()->add_option("COMMAND", line.topic);

  std::vector<std::string> words = reorder(app, argc, argv, line.command);
  // CLI11 would read a command such as "-x", or one after "--", as an option.
  if (line.command.starts_with("-"))
    throw UsageError{"unknown command '" + line.command + "'", ""};
  std::reverse(words.begin(), words.end());  // CLI11 reads a vector from its back
  try {
    app.parse(words);
  } catch (const CLI::ParseError& error) {
    // Asked for help, the user gets it whatever else is wrong. CLI11 calls an
    // unknown command an unexpected argument and a missing action a missing
    // subcommand; these two get plainer words.
    if (help->count() > 0) {
    } else if (!line.command.empty() && findCommand(app, line.command) == nullptr) {
      throw UsageError{"unknown command '" + line.command + "'", ""};
    } else if (line.command == "state" && state->get_subcommands().empty()) {
      throw UsageError{"state needs get, set or unset", "state"};
    } else {
      throw UsageError{error.what(), line.command};
    }
  }
  if (line.help || line.command == "help")
    return line;
  if (line.command.empty())
    throw UsageError{"no command given", ""};
  if (line.command == "state") {
    line.action = state->get_subcommands().front()->get_name();
    if (line.action == "set")
      line.value = typedValue(type, valueText);
  }
  return line;
}

}  // namespace vantor::ctl

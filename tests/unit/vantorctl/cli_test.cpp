// vantorctl's command line: what accepted lines ask for, and which command's
// usage a refused line shows.

#include <gtest/gtest.h>

#include "cli.h"

namespace vantor::ctl {
namespace {

using Words = std::vector<std::string>;

// The command, then every field that differs from its default; for a refused
// line, the command whose usage it shows.
std::string parsed(Words words) {
  std::string program = "vantorctl";
  std::vector<char*> argv{program.data()};
  for (std::string& word : words)
    argv.push_back(word.data());
  CommandLine l;
  try {
    l = parseCommandLine(static_cast<int>(argv.size()), argv.data());
  } catch (const UsageError& error) {
    return "usage of " + error.command;
  }
  std::string out = l.command;
  const auto add = [&out](bool set, const std::string& field) { out += set ? " " + field : ""; };
  const auto number = [](const auto& n) { return std::to_string(n.value_or(0)); };
  add(!l.action.empty(), l.action);
  add(!l.topic.empty(), "topic=" + l.topic);
  add(l.help, "help");
  add(l.bus.has_value(), "bus=" + l.bus.value_or(""));
  add(l.json, "json");
  add(l.urgency.has_value(), "urgency=" + number(l.urgency));
  add(l.urgencyLimit.has_value(), "limit=" + number(l.urgencyLimit));
  add(l.timeout.has_value(), "timeout=" + number(l.timeout));
  add(l.size != 0, "size=" + std::to_string(l.size));
  add(l.volume != "/", "volume=" + l.volume);
  add(!l.key.empty(), "key=" + l.key + " value=" + l.value.description());
  return out;
}

TEST(VantorctlCommandLine, ReadsOptionsAnywhereConvertsValuesAndRefusesWhatFitsNoCommand) {
  for (const auto& [words, expected] : std::vector<std::pair<Words, std::string>>{
           {{"--json", "purgeable", "--urgency", "4", "/usr"},
            "purgeable json urgency=4 volume=/usr"},
           {{"purge", "1.5G", "--timeout", "030", "/h", "--bus=unix:b", "--urgency-limit", "2"},
            "purge bus=unix:b limit=2 timeout=30 size=1610612736 volume=/h"},
           {{"state", "set", "--type", "integer", "K", "-12"}, "state set key=K value=-12"},
           {{"state", "set", "--type=boolean", "K", "Yes"}, "state set key=K value=true"},
           {{"state", "get", "--", "--key"}, "state get key=--key value=(null)"},
           {{"help", "purge", "--anything"}, "help topic=purge"},
           {{"purge", "-h"}, "purge help"},
           {{"-x"}, "usage of "},
           {{"state"}, "usage of state"},
           {{"state", "set", "--type", "real", "K", "inf"}, "usage of state"},
           {{"purge", "--timeout", "-5", "1G"}, "usage of purge"},
           {{"purgeable", "--timeout", "3"}, "usage of purgeable"}})
    EXPECT_EQ(parsed(words), expected) << ::testing::PrintToString(words);
}

}  // namespace
}  // namespace vantor::ctl

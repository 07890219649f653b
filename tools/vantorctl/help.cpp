// The help texts of vantorctl: the tool's, and one per command group, each
// with its usage lines, which a usage error repeats.

#include "help.h"

#include <cstdio>

#include "cli.h"

namespace vantor::ctl {

namespace {

constexpr char kMainSynopsis[] =
    "usage: vantorctl [--bus ADDRESS] [--json] COMMAND [ARGUMENTS]\n"
    "       commands: purgeable, purge, cancel, state get, state set, state unset,\n"
    "                 status, services, history, stats, help\n";

constexpr char kMainHelp[] =
    "usage: vantorctl [--bus ADDRESS] [--json] COMMAND [ARGUMENTS]\n"
    "\n"
    "Talks to vantord, the daemon that coordinates reclaiming disk space: asks how\n"
    "much space the services registered with it could free on a volume, has them\n"
    "free it, and reads and writes the small state it keeps for its clients.\n"
    "\n"
    "Commands:\n"
    "  purgeable [VOLUME]    how much space each service could free on VOLUME\n"
    "                        (default /); see 'vantorctl help purgeable'\n"
    "  purge SIZE [VOLUME]   have the services free SIZE bytes on VOLUME\n"
    "                        (default /); see 'vantorctl help purge'\n"
    "  cancel                stop the purge under way\n"
    "  state get KEY         print the value stored under KEY\n"
    "  state set KEY VALUE   store VALUE under KEY (--type says how to read it)\n"
    "  state unset KEY       remove KEY; see 'vantorctl help state'\n"
    "  status                the local volumes' free space against their low and\n"
    "                        very-low thresholds, and whether vantord runs\n"
    "  services              the services vantord knows and what they are doing\n"
    "  history               the last purges: who asked, what each service freed\n"
    "  stats [--prometheus]  vantord's statistics; see 'vantorctl help stats'\n"
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
    "     (130 seconds for purge)\n"
    "  6  purge: the purge ran but freed less than was asked\n"
    "\n"
    "Every call needs CLIENT_ENTITLEMENT from the entitlement policy in\n"
    "/etc/vantor/entitlements.d; purgeable needs PURGEABLE_ENTITLEMENT as well\n"
    "(ITEMIZED_PURGEABLE_ENTITLEMENT with --itemized), purge PURGE_ENTITLEMENT.\n"
    "\n"
    "Examples:\n"
    "  vantorctl purgeable\n"
    "  vantorctl purgeable --urgency 4 /home\n"
    "  vantorctl --json purgeable --itemized\n"
    "  vantorctl purge 2G /home\n"
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

constexpr char kPurgeSynopsis[] =
    "usage: vantorctl [--bus ADDRESS] [--json] purge [--urgency N | --urgency-limit N]\n"
    "                 [--timeout SECONDS] SIZE [VOLUME]\n"
    "       vantorctl [--bus ADDRESS] cancel\n";

constexpr char kPurgeHelp[] =
    "usage: vantorctl [--bus ADDRESS] [--json] purge [--urgency N | --urgency-limit N]\n"
    "                 [--timeout SECONDS] SIZE [VOLUME]\n"
    "       vantorctl [--bus ADDRESS] cancel\n"
    "\n"
    "purge asks vantord to have its services free SIZE bytes on VOLUME and waits\n"
    "for the outcome. vantord asks every service that purges for its share of what\n"
    "is still missing, first at urgency 1 and then higher, until the amount is\n"
    "freed or the last urgency has been tried, and measures the space really freed\n"
    "on the volume. It answers within two minutes; services may go on after that.\n"
    "\n"
    "SIZE is a number of bytes, or a number with a binary suffix: 500M, 2G,\n"
    "1.5GiB, 64KiB. VOLUME is a mount point or any existing path on the volume;\n"
    "the default is /.\n"
    "\n"
    "The outcome shows what was asked, what was freed (measured on the volume),\n"
    "what the services reported freeing, the free space before and after, and\n"
    "whether services were still working when vantord answered. With --json it is\n"
    "vantord's result as one object: \"VANTOR_AMOUNT\" (bytes freed),\n"
    "\"VANTOR_AMOUNT_REPORTED\", \"VANTOR_FREESPACE_BEGIN\", \"VANTOR_FREESPACE_END\",\n"
    "\"VANTOR_ASYNC_COMPLETE\" (present when every service had answered) and the\n"
    "request's own keys. On a terminal a progress line shows while it waits.\n"
    "\n"
    "cancel stops the purge under way: vantord tells the services still working to\n"
    "stop and tries no further urgency. Given while no purge runs, it makes the\n"
    "next purge ask no service. It needs no entitlement beyond CLIENT_ENTITLEMENT.\n"
    "\n"
    "Options:\n"
    "  --urgency N        try only urgency N (1 to 4)\n"
    "  --urgency-limit N  go from urgency 1 up to N (default 3)\n"
    "  --timeout SECONDS  how long vantord waits for the services at each urgency\n"
    "                     (at most 300; default 2 seconds times the urgency)\n"
    "\n"
    "Exit status 0 when SIZE was freed, 6 when the purge ran but freed less;\n"
    "purge needs PURGE_ENTITLEMENT (exit status 4 without it).\n"
    "\n"
    "Examples:\n"
    "  vantorctl purge 500M\n"
    "  vantorctl purge --urgency-limit 4 --timeout 30 2G /home\n"
    "  vantorctl cancel\n";

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

constexpr char kAdminSynopsis[] =
    "usage: vantorctl [--bus ADDRESS] [--json] services\n"
    "       vantorctl [--bus ADDRESS] [--json] history\n"
    "       vantorctl [--bus ADDRESS] [--json | --prometheus] stats\n";

constexpr char kAdminHelp[] =
    "usage: vantorctl [--bus ADDRESS] [--json] services\n"
    "       vantorctl [--bus ADDRESS] [--json] history\n"
    "       vantorctl [--bus ADDRESS] [--json | --prometheus] stats\n"
    "\n"
    "What vantord knows and did; each needs only CLIENT_ENTITLEMENT.\n"
    "\n"
    "  services  every service: what it does (PURGE, PERIODIC, DO_NOT_QUERY), the\n"
    "            notifications it asked for, whether it came from a descriptor or\n"
    "            checked in (and its bus name), the requests in flight to it\n"
    "            (purgeable, purge, periodic) and since when it opted out of\n"
    "            queries, if it did within the last two minutes\n"
    "  history   the last 64 purges, newest first: when, who asked (a client's\n"
    "            uid, pid and program, or \"low space\" for vantord's own), the\n"
    "            volume, the bytes asked, freed and reported, the urgency levels\n"
    "            worked, whether it was cancelled, and per service the share it\n"
    "            was asked, what it reported and how long it took\n"
    "  stats     every statistic vantord records: how many samples, their sum,\n"
    "            smallest, largest and latest\n"
    "\n"
    "  --prometheus  print the statistics in the Prometheus text format, one\n"
    "                family per figure with the statistic's name as the label\n"
    "                \"statistic\", for the node exporter's textfile collector\n"
    "\n"
    "With --json, services is one object of service IDs to their fields,\n"
    "history an array of purges and stats an object of names to figures; byte\n"
    "amounts are bytes and times nanoseconds.\n"
    "\n"
    "Examples:\n"
    "  vantorctl services\n"
    "  vantorctl --json history | jq '.[0].services'\n"
    "  vantorctl stats --prometheus > vantor.prom\n";

}  // namespace

const char* synopsisFor(const std::string& command) {
  if (command == "purgeable")
    return kPurgeableSynopsis;
  if (command == "state")
    return kStateSynopsis;
  if (command == "purge" || command == "cancel")
    return kPurgeSynopsis;
  if (command == "services" || command == "history" || command == "stats")
    return kAdminSynopsis;
  return kMainSynopsis;
}

int showHelp(const std::string& topic) {
  if (topic.empty())
    std::fputs(kMainHelp, stdout);
  else if (topic == "purgeable")
    std::fputs(kPurgeableHelp, stdout);
  else if (topic == "state")
    std::fputs(kStateHelp, stdout);
  else if (topic == "purge" || topic == "cancel")
    std::fputs(kPurgeHelp, stdout);
  else if (topic == "services" || topic == "history" || topic == "stats")
    std::fputs(kAdminHelp, stdout);
  else
    throw UsageError{"no help for unknown command '" + topic + "'", ""};
  return 0;
}

}  // namespace vantor::ctl

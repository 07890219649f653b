#include "status.h"

#include <cstdio>
#include <vector>

#include <sdbus-c++/sdbus-c++.h>

#include "client.h"
#include "format.h"
#include "json.h"
#include "platform/dbus/bus.h"
#include "support/low_space.h"
#include "support/volumes.h"

namespace vantor::ctl {

namespace {

struct VolumeRow {
  std::string volume;
  VolumeSpace space;
  LowSpaceThresholds thresholds;
  std::uint64_t flags = 0;
};

// Whether someone owns vantord's name; nullopt when the bus cannot be
// reached.
std::optional<bool> daemonRunning(const std::optional<std::string>& bus) {
  try {
    auto connection =
        bus ? sdbus::createSessionBusConnectionWithAddress(*bus) : dbus::openSystemBus();
    auto proxy = sdbus::createProxy(*connection, "org.freedesktop.DBus", "/org/freedesktop/DBus");
    bool owned = false;
    proxy->callMethod("NameHasOwner")
        .onInterface("org.freedesktop.DBus")
        .withTimeout(DaemonClient::kCallTimeout)
        .withArguments(std::string(dbus::kBusName))
        .storeResultsTo(owned);
    return owned;
  } catch (const sdbus::Error&) {
    return std::nullopt;
  }
}

const char* stateText(std::uint64_t flags) {
  if ((flags & kVqVeryLowDisk) != 0)
    return "very low";
  if ((flags & kVqLowDisk) != 0)
    return "low";
  return "ok";
}

void printVolumes(const std::vector<VolumeRow>& rows) {
  std::vector<TableRow> cells{
      {"Volume", "Size", "Available", "Low below", "Very low below", "State"}};
  for (const auto& row : rows) {
    cells.push_back({row.volume, formatBytes(row.space.size), formatBytes(row.space.available),
                     formatBytes(row.thresholds.low), formatBytes(row.thresholds.veryLow),
                     stateText(row.flags)});
  }
  // The volume left-aligned, the figures right-aligned, the state last.
  printTable(cells, {Align::kLeft, Align::kRight, Align::kRight, Align::kRight, Align::kRight});
}

}  // namespace

int runStatus(const std::optional<std::string>& bus, bool json) {
  // The thresholds as vantord computes them, from the same variables when
  // they are set in this environment too.
  const LowSpaceSettings settings = LowSpaceSettings::fromEnvironment();
  std::vector<VolumeRow> rows;
  for (const auto& volume : getLocalVolumes()) {
    const auto space = volumeSpace(volume);
    if (!space)
      continue;
    const auto thresholds = thresholdsFor(space->size, settings);
    rows.push_back({volume, *space, thresholds, lowSpaceFlags(space->available, thresholds)});
  }
  const std::optional<bool> running = daemonRunning(bus);
  // A running vantord's own figures hold: its thresholds come from its
  // environment. A caller it does not serve keeps the figures computed here.
  bool fromDaemon = false;
  if (running.value_or(false)) {
    try {
      std::vector<VolumeRow> asked;
      for (const auto& [volume, fields] : DaemonClient(bus).volumes()) {
        const Value entry(fields);
        auto bytes = [&](const char* key) {
          const Value* value = entry.find(key);
          return value != nullptr ? value->uint64Value() : 0;
        };
        const LowSpaceThresholds thresholds{bytes("lowThreshold"), bytes("veryLowThreshold")};
        const VolumeSpace space{bytes("size"), bytes("available")};
        asked.push_back({volume, space, thresholds, lowSpaceFlags(space.available, thresholds)});
      }
      rows = std::move(asked);
      fromDaemon = true;
    } catch (const Failure&) {
      // Not entitled, or a vantord without the administration interface.
    }
  }

  if (json) {
    Value::Array volumes;
    for (const auto& row : rows) {
      volumes.emplace_back(
          Value::Dictionary{{"volume", Value(row.volume)},
                            {"size", Value(row.space.size)},
                            {"available", Value(row.space.available)},
                            {"lowThreshold", Value(row.thresholds.low)},
                            {"veryLowThreshold", Value(row.thresholds.veryLow)},
                            {"low", Value((row.flags & kVqLowDisk) != 0)},
                            {"veryLow", Value((row.flags & kVqVeryLowDisk) != 0)}});
    }
    printJson(Value(Value::Dictionary{{"volumes", Value(std::move(volumes))},
                                      {"running", Value(running.value_or(false))},
                                      {"source", Value(fromDaemon ? "vantord" : "local")}}));
  } else {
    printVolumes(rows);
    std::printf("\nvantord: %s\n", !running   ? "the bus cannot be reached"
                                   : *running ? "running"
                                              : "not running");
  }
  return running.value_or(false) ? 0 : 3;
}

}  // namespace vantor::ctl

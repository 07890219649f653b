#include "admin.h"

#include <time.h>

#include <cmath>
#include <cstdio>
#include <string_view>
#include <vector>

#include "client.h"
#include "format.h"
#include "json.h"

namespace vantor::ctl {

namespace {

std::string text(const Value* value, const std::string& otherwise = "-") {
  if (value == nullptr)
    return otherwise;
  return value->isString() ? value->get<std::string>() : value->description();
}

std::string joined(const Value* array, const std::string& otherwise = "-") {
  std::string out;
  if (array != nullptr && array->isArray()) {
    for (const auto& item : array->get<Value::Array>())
      out += (out.empty() ? "" : ",") + text(&item);
  }
  return out.empty() ? otherwise : out;
}

std::string dateText(const Value* value) {
  if (value == nullptr || !value->isDate())
    return "?";
  const time_t seconds = static_cast<time_t>(value->get<Date>().microsecondsSinceEpoch / 1'000'000);
  struct tm tm {};
  char buffer[32] = "?";
  if (gmtime_r(&seconds, &tm) != nullptr)
    std::strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M:%S UTC", &tm);
  return buffer;
}

std::string bytesOf(const Value* value) {
  return value != nullptr ? amountText(*value) : "?";
}

// A sample value as the Prometheus text format writes floats.
std::string promNumber(double value) {
  if (std::isnan(value))
    return "NaN";
  if (std::isinf(value))
    return value > 0 ? "+Inf" : "-Inf";
  char buffer[40];
  std::snprintf(buffer, sizeof buffer, "%.17g", value);
  return buffer;
}

// A label value: backslash, double quote and line feed escaped.
std::string promLabel(std::string_view value) {
  std::string out;
  for (const char c : value) {
    if (c == '\\' || c == '"')
      out += {'\\', c};
    else if (c == '\n')
      out += "\\n";
    else
      out += c;
  }
  return out;
}

void printPrometheus(const Value::Dictionary& statistics) {
  struct Family {
    const char* field;
    const char* metric;
    const char* type;
    const char* help;
  };
  static constexpr Family kFamilies[] = {
      {"count", "vantor_statistic_samples_total", "counter",
       "Samples vantord recorded for the statistic."},
      {"sum", "vantor_statistic_sum", "gauge", "Sum of the statistic's samples."},
      {"min", "vantor_statistic_min", "gauge", "Smallest sample of the statistic."},
      {"max", "vantor_statistic_max", "gauge", "Largest sample of the statistic."},
      {"last", "vantor_statistic_last", "gauge", "Latest sample of the statistic."},
  };
  for (const auto& family : kFamilies) {
    std::printf("# HELP %s %s\n# TYPE %s %s\n", family.metric, family.help, family.metric,
                family.type);
    for (const auto& [name, summary] : statistics) {
      const Value* sample = summary.find(family.field);
      if (sample == nullptr || !sample->isNumber())
        continue;
      std::printf("%s{statistic=\"%s\"} %s\n", family.metric, promLabel(name).c_str(),
                  promNumber(sample->doubleValue()).c_str());
    }
  }
}

}  // namespace

int runServices(const std::optional<std::string>& bus, bool json) {
  const auto services = DaemonClient(bus).services();
  if (json) {
    Value::Dictionary out;
    for (const auto& [id, fields] : services)
      out.emplace(id, Value(fields));
    printJson(Value(out));
    return 0;
  }
  if (services.empty()) {
    std::printf("vantord knows no service.\n");
    return 0;
  }
  std::vector<TableRow> rows{
      {"SERVICE", "ORIGIN", "DOES", "NOTIFICATIONS", "IN FLIGHT", "OPTED OUT"}};
  for (const auto& [id, fields] : services) {
    const Value entry(fields);
    std::vector<std::string> does;
    for (const char* flag : {"PURGE", "PERIODIC", "DO_NOT_QUERY"}) {
      if (const Value* set = entry.find(flag); set != nullptr && set->boolValue())
        does.push_back(flag);
    }
    std::string doesText;
    for (const auto& d : does)
      doesText += (doesText.empty() ? "" : ",") + d;
    std::string origin = text(entry.find("origin"), "?");
    if (const Value* busName = entry.find("busName"))
      origin += " " + text(busName);
    const Value* optedOut = entry.find("optedOutAt");
    rows.push_back({id, origin, doesText.empty() ? "-" : doesText,
                    joined(entry.find("NOTIFICATIONS")), joined(entry.find("inFlight")),
                    optedOut != nullptr ? dateText(optedOut) : "-"});
  }
  printTable(rows);
  return 0;
}

int runHistory(const std::optional<std::string>& bus, bool json) {
  const Value::Array purges = DaemonClient(bus).purgeHistory();
  if (json) {
    printJson(Value(purges));
    return 0;
  }
  if (purges.empty()) {
    std::printf("No purge since vantord started.\n");
    return 0;
  }
  for (const auto& purge : purges) {
    std::string who = text(purge.find("requestedBy"), "?");
    if (const Value* uid = purge.find("uid"))
      who += " uid " + text(uid);
    if (const Value* pid = purge.find("pid"))
      who += " pid " + text(pid);
    if (const Value* executable = purge.find("executable"))
      who += " " + text(executable);
    std::printf("%s  %s  volume %s\n", dateText(purge.find("date")).c_str(), who.c_str(),
                text(purge.find("volume"), "?").c_str());
    const Value* cancelled = purge.find("cancelled");
    std::printf("  asked %s, freed %s, reported %s, levels %s%s\n",
                bytesOf(purge.find("asked")).c_str(), bytesOf(purge.find("freed")).c_str(),
                bytesOf(purge.find("reported")).c_str(),
                joined(purge.find("levels"), "none").c_str(),
                cancelled != nullptr && cancelled->boolValue() ? ", cancelled" : "");
    if (const auto* services = purge.find("services"); services && services->isDictionary()) {
      for (const auto& [id, share] : services->get<Value::Dictionary>()) {
        const Value* nanoseconds = share.find("nanoseconds");
        std::printf("  %s: asked %s, reported %s, %.3f s, %s request(s)\n", id.c_str(),
                    bytesOf(share.find("asked")).c_str(), bytesOf(share.find("reported")).c_str(),
                    nanoseconds != nullptr ? nanoseconds->doubleValue() / 1e9 : 0.0,
                    text(share.find("requests"), "?").c_str());
      }
    }
  }
  return 0;
}

int runStats(const std::optional<std::string>& bus, bool json, bool prometheus) {
  const Value::Dictionary statistics = DaemonClient(bus).statistics();
  if (prometheus) {
    printPrometheus(statistics);
  } else if (json) {
    printJson(Value(statistics));
  } else if (statistics.empty()) {
    std::printf("No statistic recorded yet.\n");
  } else {
    std::vector<TableRow> rows{{"STATISTIC", "COUNT", "SUM", "MIN", "MAX", "LAST"}};
    for (const auto& [name, summary] : statistics) {
      std::vector<std::string> row{name};
      for (const char* field : {"count", "sum", "min", "max", "last"}) {
        const Value* sample = summary.find(field);
        char buffer[32] = "?";
        if (sample != nullptr && sample->isNumber())
          std::snprintf(buffer, sizeof buffer, "%.6g", sample->doubleValue());
        row.emplace_back(buffer);
      }
      rows.push_back(std::move(row));
    }
    printTable(rows);
  }
  return 0;
}

}  // namespace vantor::ctl

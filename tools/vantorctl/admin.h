#pragma once

#include <optional>
#include <string>

namespace vantor::ctl {

// The administration commands. Each asks vantord on the bus at `bus` (the
// system bus when none is given) and prints a table, or one JSON value with
// `json`; each returns 0 or throws Failure.

// `vantorctl services`: every known service, what it does, where it came
// from, its in-flight marks and any opt-out in force.
int runServices(const std::optional<std::string>& bus, bool json);

// `vantorctl history`: the last purges, newest first, with who asked and
// what each service was asked and answered.
int runHistory(const std::optional<std::string>& bus, bool json);

// `vantorctl stats`: every statistic vantord records; with `prometheus` in
// the Prometheus text exposition format.
int runStats(const std::optional<std::string>& bus, bool json, bool prometheus);

}  // namespace vantor::ctl

#pragma once

#include <optional>
#include <string>

namespace vantor::ctl {

// `vantorctl status`: each local volume with its size, available bytes, low
// and very-low thresholds and whether it is below them now, as a running
// vantord reports them (GetVolumes), or else computed here from statvfs with
// vantord's rules ("source" in the JSON says which), and whether vantord
// runs on the bus at `bus` (the system bus when none is given). Prints a
// table, or one JSON object with `json`. Returns 0, or 3 when vantord is not
// running.
int runStatus(const std::optional<std::string>& bus, bool json);

}  // namespace vantor::ctl

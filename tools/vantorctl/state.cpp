#include "state.h"

#include <cstdio>
#include <string>

#include "client.h"
#include "json.h"

namespace vantor::ctl {

int runState(const CommandLine& line) {
  DaemonClient client(line.bus);
  if (line.action == "set") {
    client.setState(line.key, line.value);
  } else if (line.action == "unset") {
    client.setState(line.key, Value());
  } else {
    const Value value = client.getState(line.key);
    if (line.json) {
      printJson(Value(Value::Dictionary{{"key", Value(line.key)}, {"value", value}}));
    } else if (value.isString()) {
      std::printf("%s\n", value.get<std::string>().c_str());
    } else {
      std::printf("%s\n", value.description().c_str());
    }
  }
  return 0;
}

}  // namespace vantor::ctl

#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "testkit/child_process.h"

namespace vantor::testkit {

// A private dbus-daemon with the test configuration. It keeps its log, its
// configuration and its directory of activatable services in `directory`.
// Throws when the bus does not start; destroying it kills the bus.
class PrivateBus {
 public:
  explicit PrivateBus(const std::filesystem::path& directory);
  const std::string& address() const { return address_; }
  // Where `.service` files for D-Bus activation on this bus go; the bus
  // looks there when a name it does not know is called.
  const std::filesystem::path& serviceDir() const { return serviceDir_; }

 private:
  std::filesystem::path serviceDir_;
  std::unique_ptr<ChildProcess> process_;
  std::string address_;
};

}  // namespace vantor::testkit

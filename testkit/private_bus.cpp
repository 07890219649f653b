#include "testkit/private_bus.h"

#include <poll.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <stdexcept>
#include <vector>

#include "platform/files/fd.h"

namespace vantor::testkit {

PrivateBus::PrivateBus(const std::filesystem::path& directory)
    : serviceDir_(directory / "bus-services") {
  // The shared configuration plus a directory of activatable services of
  // this bus's own, so tests can install .service files without touching
  // any other bus.
  std::filesystem::create_directories(serviceDir_);
  const auto config = directory / "bus.conf";
  {
    std::ofstream out(config, std::ios::trunc);
    out << "<busconfig>\n  <include>" << VANTOR_BUS_CONFIG << "</include>\n  <servicedir>"
        << serviceDir_.string() << "</servicedir>\n</busconfig>\n";
  }
  // The bus prints its address on a pipe once it listens.
  int fds[2];
  if (::pipe2(fds, 0) != 0)
    throw std::runtime_error("pipe failed");
  const Fd readEnd(fds[0]);
  Fd writeEnd(fds[1]);
  process_ = std::make_unique<ChildProcess>(
      std::vector<std::string>{"/usr/bin/dbus-daemon", "--config-file=" + config.string(),
                               "--nofork", "--print-address=" + std::to_string(fds[1])},
      std::map<std::string, std::string>{}, directory / "bus.log");
  writeEnd = Fd();
  std::string text;
  char buffer[512];
  struct pollfd pfd {
    readEnd.get(), POLLIN, 0
  };
  while (text.find('\n') == std::string::npos && ::poll(&pfd, 1, 10000) > 0) {
    ssize_t n = ::read(readEnd.get(), buffer, sizeof buffer);
    if (n <= 0)
      break;
    text.append(buffer, static_cast<std::size_t>(n));
  }
  if (text.find('\n') == std::string::npos)
    throw std::runtime_error("dbus-daemon did not start");
  address_ = text.substr(0, text.find('\n'));
}

}  // namespace vantor::testkit

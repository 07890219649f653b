// Descriptor files: one input is one file in an otherwise empty descriptor
// directory, read by the scan the daemon runs at start-up and turned into a
// service record.

#include <cstddef>
#include <cstdint>
#include <memory>

#include "daemon/vantor.h"
#include "fuzz_support.h"
#include "support/log.h"

namespace {

vantor::Vantor& coordinator() {
  static const std::shared_ptr<vantor::Vantor> instance = [] {
    vantor::setLogHandleForTesting(true, 0);  // quiet: every input would log
    vantor::Vantor::Options options;
    options.root = (vantor::fuzz::scratchDirectory() / "root").string();
    options.stateDirectory = (vantor::fuzz::scratchDirectory() / "state").string();
    options.listen = false;
    return vantor::Vantor::create(options);
  }();
  return *instance;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  vantor::Vantor& v = coordinator();
  const auto dir = vantor::fuzz::scratchDirectory() / "descriptors";
  vantor::fuzz::writeInput(dir / "service.plist", data, size);
  v.scanPlistsAtPath(dir.string(),
                     [&v](const vantor::Value& descriptor) { v.addDescriptorService(descriptor); });
  v.services.clear();
  v.daemons.clear();
  return 0;
}

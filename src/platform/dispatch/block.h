#pragma once

#include <functional>

namespace vantor::dispatch {

// A unit of work run on a queue. Blocks own what they capture.
using Block = std::function<void()>;

}  // namespace vantor::dispatch

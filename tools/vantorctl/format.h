#pragma once

#include <cstdint>
#include <string>

#include "platform/values/value.h"

namespace vantor::ctl {

// Sizes in powers of 1024 with one decimal ("1.5 GiB"); below 1 KiB in whole
// bytes ("512 B").
std::string formatBytes(std::uint64_t bytes);

// A byte amount of any numeric type, negative ones with a sign; anything
// else in vantord's notation.
std::string amountText(const Value& amount);

}  // namespace vantor::ctl

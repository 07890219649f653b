#include "format.h"

#include <algorithm>
#include <cstdio>
#include <iterator>

namespace vantor::ctl {

// Sizes in powers of 1024 with one decimal; below 1 KiB in whole bytes.
std::string formatBytes(std::uint64_t bytes) {
  static constexpr const char* kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  if (bytes < 1024)
    return std::to_string(bytes) + " B";
  double amount = static_cast<double>(bytes);
  std::size_t unit = 0;
  // 1023.95 would print as 1024.0 of the smaller unit.
  while (unit + 1 < std::size(kUnits) && amount >= 1023.95) {
    amount /= 1024;
    ++unit;
  }
  char text[32];
  std::snprintf(text, sizeof text, "%.1f %s", amount, kUnits[unit]);
  return text;
}

std::string amountText(const Value& amount) {
  if (amount.type() == Value::Type::kUnsigned)
    return formatBytes(amount.get<std::uint64_t>());
  if (amount.isNumber()) {
    const std::int64_t n = amount.int64Value();
    if (n < 0)
      return "-" + formatBytes(std::uint64_t{0} - static_cast<std::uint64_t>(n));
    return formatBytes(static_cast<std::uint64_t>(n));
  }
  return amount.description();
}

std::vector<std::size_t> columnWidths(const std::vector<TableRow>& rows) {
  std::vector<std::size_t> widths;
  for (const auto& row : rows) {
    widths.resize(std::max(widths.size(), row.size()));
    for (std::size_t i = 0; i < row.size(); ++i)
      widths[i] = std::max(widths[i], row[i].size());
  }
  return widths;
}

void printRow(const TableRow& row, const std::vector<std::size_t>& widths,
              const std::vector<Align>& align) {
  std::string line;
  for (std::size_t i = 0; i < row.size(); ++i) {
    const std::size_t padding = widths[i] - std::min(widths[i], row[i].size());
    const bool last = i + 1 == row.size();
    if (i > 0)
      line += "  ";
    if (i < align.size() && align[i] == Align::kRight)
      line += std::string(padding, ' ') + row[i];
    else
      line += last ? row[i] : row[i] + std::string(padding, ' ');
  }
  std::printf("%s\n", line.c_str());
}

void printTable(const std::vector<TableRow>& rows, const std::vector<Align>& align) {
  const std::vector<std::size_t> widths = columnWidths(rows);
  for (const auto& row : rows)
    printRow(row, widths, align);
}

}  // namespace vantor::ctl

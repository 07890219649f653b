#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/values/value.h"

namespace vantor::ctl {

// Sizes in powers of 1024 with one decimal ("1.5 GiB"); below 1 KiB in whole
// bytes ("512 B").
std::string formatBytes(std::uint64_t bytes);

// A byte amount of any numeric type, negative ones with a sign; anything
// else in vantord's notation.
std::string amountText(const Value& amount);

// Tables on stdout: cells two spaces apart, each column as wide as its widest
// cell. A cell is padded on the side its column's alignment says (left
// alignment when the row gives none); a last cell aligned left is not padded,
// so no line ends in spaces.
enum class Align { kLeft, kRight };
using TableRow = std::vector<std::string>;

std::vector<std::size_t> columnWidths(const std::vector<TableRow>& rows);
void printRow(const TableRow& row, const std::vector<std::size_t>& widths,
              const std::vector<Align>& align = {});
void printTable(const std::vector<TableRow>& rows, const std::vector<Align>& align = {});

}  // namespace vantor::ctl

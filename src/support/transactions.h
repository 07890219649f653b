#pragma once

#include <cstdint>

// Process transactions: a count of work that keeps the process busy. The
// daemon never exits when idle, so the count is informational (tests and
// diagnostics read it).

namespace vantor {

void transactionBegin();
void transactionEnd();
std::int64_t openTransactions();

}  // namespace vantor

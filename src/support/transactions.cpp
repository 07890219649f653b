#include "support/transactions.h"

#include <atomic>

namespace vantor {

namespace {
std::atomic<std::int64_t> gTransactions{0};
}

void transactionBegin() {
  gTransactions.fetch_add(1);
}
void transactionEnd() {
  gTransactions.fetch_sub(1);
}
std::int64_t openTransactions() {
  return gTransactions.load();
}

}  // namespace vantor

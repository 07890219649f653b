// The client requests for purgeable space. The two differ in their
// entitlement alone: the itemised view is granted separately although the
// answer already lists every counted service beside the total.

#include "daemon/vantor.h"
#include "platform/dispatch/global_pool.h"
#include "support/client_connection.h"
#include "support/log.h"

namespace vantor {

namespace {

// Runs the query for an entitled caller and replies from a pool thread,
// never from the caller's own thread; an unentitled caller gets the null
// reply and no query runs.
void answerPurgeable(Vantor& vantor, const char* method, const char* entitlement, const Value& info,
                     const Vantor::DictionaryReply& reply) {
  Value result;
  if (connectionIsEntitled(currentConnection(), {entitlement})) {
    result = vantor.totalAvailable(info);
  } else {
    VANTOR_LOG(3, "%s Connection is not entitled!", method);
  }
  dispatch::globalAsync([reply, result = std::move(result)] { reply(result); });
}

}  // namespace

void Vantor::clientPurgeableSpace(const Value& info, DictionaryReply reply) {
  answerPurgeable(*this, "-[Vantor clientPurgeableSpace:replyBlock:]", kPurgeableEntitlement, info,
                  reply);
}

void Vantor::clientItemizedPurgeableSpace(const Value& info, DictionaryReply reply) {
  answerPurgeable(*this, "-[Vantor clientItemizedPurgeableSpace:replyBlock:]",
                  kItemizedPurgeableEntitlement, info, reply);
}

}  // namespace vantor

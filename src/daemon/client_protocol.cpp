// The client protocol's entry points. Calls that this build does not offer yet
// are answered with NotSupported by the listener.

#include "daemon/vantor.h"

namespace vantor {

void Vantor::clientPurge(const Value&, DictionaryReply) {
  throw NotSupportedError("purge is not available in this version");
}

void Vantor::clientCancelPurge(EmptyReply) {
  throw NotSupportedError("cancelling a purge is not available in this version");
}

}  // namespace vantor

// The listener answers every call: a method body that throws answers
// org.freedesktop.DBus.Error.Failed with its message, and the listener goes
// on serving.

#include <gtest/gtest.h>

#include <cstdlib>
#include <stdexcept>

#include <sdbus-c++/sdbus-c++.h>

#include "support/listener.h"
#include "testkit/daemon_harness.h"

namespace vantor {
namespace {

// Throws from every call that reaches it, but answers state reads.
class ThrowingObject final : public VantorClientProtocol {
 public:
  void clientCheckin(const std::string&, const ServiceEndpoint&, const Value&,
                     CheckinReply) override {
    throw std::runtime_error("check-in broke");
  }
  void clientPurgeableSpace(const Value&, DictionaryReply) override {
    throw std::runtime_error("query broke");
  }
  void clientItemizedPurgeableSpace(const Value&, DictionaryReply) override {
    throw std::logic_error("itemized query broke");
  }
  void clientPurge(const Value&, DictionaryReply) override { throw std::bad_alloc(); }
  void clientCancelPurge(EmptyReply) override { throw std::runtime_error("cancel broke"); }
  void clientSetState(const Value&, const Value&, StatusReply) override {
    throw std::runtime_error("set broke");
  }
  void clientGetState(const Value&, ObjectReply reply) override { reply(Value("fine")); }
};

TEST(Listener, AMethodBodyThatThrowsIsAnsweredFailedAndServingGoesOn) {
  testkit::TempDir dir;
  testkit::PrivateBus bus(dir.path());
  ::setenv("DBUS_SYSTEM_BUS_ADDRESS", bus.address().c_str(), 1);
  auto listener =
      VantorListener::daemonListenerWithExportedObject(std::make_shared<ThrowingObject>());
  std::string error;
  ASSERT_TRUE(listener->resume(&error)) << error;

  auto client = sdbus::createSystemBusConnection();
  const auto info = [](sdbus::MethodCall& call) {
    call << std::map<std::string, sdbus::Variant>{};
  };
  for (const char* method : {"ClientPurgeableSpace", "ClientItemizedPurgeableSpace", "ClientPurge"})
    EXPECT_EQ(testkit::callForError(*client, method, info), "org.freedesktop.DBus.Error.Failed")
        << method;
  EXPECT_EQ(testkit::callForError(*client, "ClientCancelPurge"),
            "org.freedesktop.DBus.Error.Failed");
  EXPECT_EQ(testkit::callForError(*client, "ClientSetState",
                                  [](sdbus::MethodCall& call) {
                                    call << std::vector<sdbus::Variant>{} << std::string("k");
                                  }),
            "org.freedesktop.DBus.Error.Failed");
  EXPECT_EQ(testkit::callForError(*client, "ClientGetState",
                                  [](sdbus::MethodCall& call) { call << std::string("k"); }),
            "");
}

}  // namespace
}  // namespace vantor

#include <gtest/gtest.h>

#include "support/pattern.h"
#include "support/raw_client.h"
#include "support/scripted_server.h"

namespace support {
namespace {

// Not under Wine, which shows a reset as an orderly end.
TEST(ScriptedServer, resetsAfterTheClientHasTheBytesThatWereSent) {
  constexpr std::uint64_t kBytes = 8 << 20;  // more than the buffers in between hold
  ScriptedServer server([](const ReceivedRequest&) { return Reply().sendPattern(0, kBytes).reset(); });
  RawClient client(server.port());
  client.send("GET / HTTP/1.1\r\n\r\n");
  const std::string received = client.receiveAll();
  EXPECT_EQ(client.end(), RawClient::End::Reset);
  EXPECT_TRUE(received == patternBytes(0, kBytes)) << received.size() << " bytes";
}

}  // namespace
}  // namespace support

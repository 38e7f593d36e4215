// What the tests against real servers ask for again and again.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "support/pattern.h"
#include "support/plan_under_test.h"
#include "support/real_servers.h"
#include "xfer/xfer.hpp"

namespace servers_test {

/// Many small ranges on several connections.
inline xfer::DownloadPolicy manyRanges(support::RealServer server, std::uint16_t connections = 8) {
  xfer::DownloadPolicy policy;
  policy.numThreads = connections;
  policy.rampChunks = false;
  policy.maxChunkSize = 256 * 1024;
  policy.useHttp2 = server == support::RealServer::NginxH2;
  return policy;
}

inline xfer::DownloadSnapshot download(const std::string& url, const std::string& path,
                                       const xfer::DownloadPolicy& policy, const net::Proxy& proxy = {}) {
  xfer::DownloadRequest request;
  request.url = url;
  request.path = path;
  request.proxy = proxy;
  xfer::DownloadJob job(request, policy, support::planUnderTest());
  job.start();
  job.wait();
  return job.snapshot();
}

/// Completed, each byte counted once (see bytesAmiss), and the file is the pattern.
inline void expectWhole(const xfer::DownloadSnapshot& snapshot, const std::string& path, std::uint64_t size) {
  EXPECT_EQ(snapshot.state, xfer::JobState::Completed) << "error " << snapshot.errorCode;
  EXPECT_EQ(support::bytesAmiss(snapshot.bytesDone, size), 0U);
  EXPECT_EQ(support::patternError(path, size), "");
}

}  // namespace servers_test

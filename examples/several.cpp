// Downloads several files at once.  Together they keep one speed limit, and one function hears of all of them.
//
//   several BYTES_PER_SEC URL PATH [URL PATH]...
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include <xfer/xfer.h>
#include <xfer/xfer.hpp>

namespace {

/// What is told of any of the downloads.  All calls are made on one thread of the library, one after the other.
void show(const std::string& path, const xfer::DownloadUpdate& update) {
  const xfer::DownloadSnapshot& now = update.snapshot;
  if (update.kind == xfer::DownloadUpdate::Kind::Progress) {
    std::cout << path << ": " << now.bytesDone << " of " << now.totalBytes << " bytes" << std::endl;
  }
}

bool downloadAll(std::uint64_t bytesPerSec, int count, char** urlsAndPaths) {
  xfer::SpeedLimiter limiter(bytesPerSec);  // for the sum of all jobs that are given it

  xfer::DownloadPolicy policy;
  policy.numThreads = 2;

  std::vector<xfer::DownloadJob> jobs;
  for (int i = 0; i < count; ++i) {
    xfer::DownloadRequest request;
    request.url = urlsAndPaths[2 * i];
    request.path = urlsAndPaths[2 * i + 1];

    // An update does not say whose it is, so each job's callback brings the path along.
    xfer::DownloadOptions options;
    options.setVerifyPeer(true).setPlan(xfer::DownloadPlan::Adaptive).setSpeedLimiter(limiter);
    options.setProgressInterval(250);  // milliseconds
    options.setOnUpdate([path = request.path](const xfer::DownloadUpdate& update) { show(path, update); });
    jobs.emplace_back(request, policy, options);
  }

  const auto begin = std::chrono::steady_clock::now();
  for (xfer::DownloadJob& job : jobs) job.start();
  for (xfer::DownloadJob& job : jobs) job.wait();
  const std::chrono::duration<double> passed = std::chrono::steady_clock::now() - begin;

  // The callback has been told every end by now; what came of each can also be asked for.
  bool allCompleted = true;
  std::uint64_t bytes = 0;
  for (int i = 0; i < count; ++i) {
    const xfer::DownloadSnapshot end = jobs[static_cast<std::size_t>(i)].snapshot();
    bytes += end.bytesDone;
    allCompleted = allCompleted && end.state == xfer::JobState::Completed;
    // An error page has both numbers, and its HTTP status is the one that says why.
    const std::int32_t code = end.httpStatus >= 400 ? end.httpStatus : end.errorCode;
    std::cout << urlsAndPaths[2 * i + 1] << ": " << xfer_errorText(code) << std::endl;
  }
  std::cout << bytes << " bytes in " << passed.count() << " s" << std::endl;
  return allCompleted;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4 || argc % 2 != 0) {
    std::cerr << "usage: several BYTES_PER_SEC URL PATH [URL PATH]...\n";
    return 2;
  }
  try {
    return downloadAll(std::strtoull(argv[1], nullptr, 10), argc / 2 - 1, argv + 2) ? 0 : 1;
  } catch (const std::exception& e) {
    std::cerr << e.what() << '\n';
    return 1;
  }
}

// Downloads a file over several connections, shows its progress, and pauses it halfway for a second.
//
//   download URL PATH
#include <chrono>
#include <cstdint>
#include <exception>
#include <future>
#include <iostream>
#include <string>
#include <thread>

#include <xfer/xfer.h>
#include <xfer/xfer.hpp>

namespace {

const char* nameOf(xfer::JobState state) {
  switch (state) {
    case xfer::JobState::Idle:
      return "idle";
    case xfer::JobState::Probing:
      return "asking the server";
    case xfer::JobState::Running:
      return "running";
    case xfer::JobState::Paused:
      return "paused";
    case xfer::JobState::Cancelling:
      return "cancelling";
    case xfer::JobState::Completed:
      return "completed";
    case xfer::JobState::Failed:
      return "failed";
    case xfer::JobState::Cancelled:
      return "cancelled";
  }
  return "?";
}

/// Why a request or the download failed.  An error page has both numbers, and its HTTP status is the one that says why.
const char* textOf(std::int32_t code, std::int32_t httpStatus) {
  return xfer_errorText(httpStatus >= 400 ? httpStatus : code);
}

/// What the library did about a connection or a server that held the download up.
std::string textOf(const xfer::DownloadEvent& note) {
  switch (note.kind) {
    case xfer::DownloadEvent::Kind::GivenUp:
      return std::string("a connection is replaced, it is ") + note.reason;
    case xfer::DownloadEvent::Kind::TriedAgain:
      return std::string("asks again: ") + textOf(note.code, note.httpStatus);
    case xfer::DownloadEvent::Kind::HostLeftAlone:
      return "sends the server nothing for " + std::to_string(note.waitNs / 1000000) + " ms";
    default:  // the other kinds are told with DownloadNotes::All only
      return "other";
  }
}

bool download(const char* url, const char* path) {
  xfer::DownloadRequest request;
  request.url = url;
  request.path = path;

  xfer::DownloadPolicy policy;
  policy.numThreads = 4;  // connections at once

  // The callback runs on a thread of the library.  What it uses has to outlive the job, so it stands before the job.
  std::promise<void> reachedHalfway;
  bool halfway = false;  // the callback's own, thus without a lock

  xfer::DownloadOptions options;
  options.setPlan(xfer::DownloadPlan::Adaptive);  // slow connections do not hold the download up
  options.setVerifyPeer(true);                    // certificates are checked only when a host asks for it
  options.setRetryMaxTime(30);                    // seconds without a byte after which a failure is final
  options.setOnUpdate([&](const xfer::DownloadUpdate& update) {
    const xfer::DownloadSnapshot& now = update.snapshot;
    switch (update.kind) {
      case xfer::DownloadUpdate::Kind::State:
        std::cout << "state: " << nameOf(update.state) << std::endl;
        break;
      case xfer::DownloadUpdate::Kind::Progress:
        std::cout << now.bytesDone << " of " << now.totalBytes << " bytes, " << now.bytesPerSec
                  << " bytes/s, connections: " << update.connections << std::endl;
        break;
      case xfer::DownloadUpdate::Kind::Note:
        std::cout << "note: " << textOf(update.note) << std::endl;
        break;
      case xfer::DownloadUpdate::Kind::End:
        break;
    }
    // The end counts too: a job that fails early never gets halfway.
    if (!halfway && (update.kind == xfer::DownloadUpdate::Kind::End || now.percent >= 50)) {
      halfway = true;
      reachedHalfway.set_value();
    }
  });

  xfer::DownloadJob job(request, policy, options);
  job.start();

  // This thread is free for other things meanwhile.  This program waits, and then does what a Pause button would do.
  reachedHalfway.get_future().wait();
  job.pause();  // does nothing when the job has ended
  std::this_thread::sleep_for(std::chrono::seconds(1));
  job.resume();

  job.wait();
  const xfer::DownloadSnapshot end = job.snapshot();
  std::cout << nameOf(end.state) << ": " << end.bytesDone << " bytes";
  if (end.state != xfer::JobState::Completed) std::cout << ", " << textOf(end.errorCode, end.httpStatus);
  std::cout << std::endl;
  return end.state == xfer::JobState::Completed;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::cerr << "usage: download URL PATH\n";
    return 2;
  }
  try {
    return download(argv[1], argv[2]) ? 0 : 1;
  } catch (const std::exception& e) {  // out of memory or threads: start and the constructors throw
    std::cerr << e.what() << '\n';
    return 1;
  }
}

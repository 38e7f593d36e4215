// A download job against a server that answers with whatever bytes it likes: the job ends, and a file that it calls
// complete is not longer than was known.
//
// The input is a byte that says how the job is made, then the answers, one a request, separated by a byte that HTTP has
// no use for; the last one is given to all further requests.  Each connection is closed behind its answer.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "download_job_impl.h"
#include "fuzz/promise.h"
#include "support/job_run.h"
#include "support/scripted_server.h"
#include "support/temp_dir.h"

namespace {

using fuzz::promise;
using support::Reply;

constexpr char kSeparator = '\x1e';
constexpr std::uint64_t kKnownSize = 40;
constexpr std::uint64_t kChunk = 10;

class Answers {
 public:
  void set(std::string_view text) {
    const std::lock_guard lock(mutex_);
    answers_.clear();
    next_ = 0;
    for (;;) {
      const std::size_t end = text.find(kSeparator);
      answers_.emplace_back(text.substr(0, end));
      if (end == std::string_view::npos) return;
      text.remove_prefix(end + 1);
    }
  }

  Reply next() {
    const std::lock_guard lock(mutex_);
    const std::string& answer = answers_[std::min(next_++, answers_.size() - 1)];
    return Reply().send(answer).close();
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> answers_{""};
  std::size_t next_ = 0;
};

// A redirect would lead to hosts that are none of a test's business.
bool mayRedirect(std::string_view text) {
  constexpr std::string_view kLocation = "location";
  return std::search(text.begin(), text.end(), kLocation.begin(), kLocation.end(),
                     [](char a, char b) { return (a | 0x20) == b; }) != text.end();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Answers answers;
  static const support::ScriptedServer server([](const support::ReceivedRequest&) { return answers.next(); });
  static const support::TempDir folder;
  static const std::string path = folder.file("out");
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  if (text.empty() || mayRedirect(text)) return 0;

  answers.set(text.substr(1));
  const bool known = (data[0] & 1) != 0;
  const auto numThreads = static_cast<std::uint16_t>(1 + (data[0] >> 1) % 3);
  xfer::JobEnvironment environment = xfer::realJobEnvironment();
  environment.waitForRetry = [](std::uint64_t, xfer::StopSignal&) {};
  xfer::DownloadJob::Impl job(support::requestFor(server.url("/file"), path, known ? kKnownSize : 0),
                              support::chunksOf(kChunk, numThreads), environment);
  const xfer::DownloadSnapshot end = support::run(job);
  promise(xfer::isFinal(end.state), "the job ends");
  promise((end.state == xfer::JobState::Failed) == (end.errorCode != 0), "only a failure has a code");
  if (end.state != xfer::JobState::Completed || !known) return 0;
  promise(support::fileSize(path).value_or(kKnownSize + 1) <= kKnownSize,
          "the file is not longer than it is known to be");
  return 0;
}

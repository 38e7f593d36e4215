// xfer_stress [--seconds N] [--seed S] [--plan stated|adaptive]: requests and downloads of every kind, from many
// threads, against servers that serve, redirect, refuse, close, reset and stall, while jobs are paused, resumed,
// cancelled, moved and destroyed.
//
// Every operation has to end, with a result that its server can have caused; what was received whole has to be the
// pattern; and in the end no thread and no descriptor may be left.  An operation that takes longer than a minute (times
// XFER_TEST_TIMEOUT_FACTOR) ends the program at once and is named.
//
// With XFER_TEST_SERVERS in the environment (see support/real_servers.h) real servers and a proxy take part, with TLS
// and HTTP/2.  The last line counts the outcomes.  Exit code: 0, 1 for a wrong outcome, 2 for usage, 3 for an operation
// that does not end.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <initializer_list>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "support/census.h"
#include "support/pattern.h"
#include "support/raw_client.h"
#include "support/real_servers.h"
#include "support/scripted_server.h"
#include "support/temp_dir.h"
#include "support/test_timeout.h"
#include "support/unused_port.h"
#include "support/wait_until.h"
#include "sys/data_buff.h"
#include "xfer/xfer.h"
#include "xfer/xfer.hpp"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using support::RealServer;
using support::RealServers;
using support::ReceivedRequest;
using support::Reply;
using xfer::DownloadJob;
using xfer::DownloadPolicy;
using xfer::DownloadRequest;
using xfer::DownloadSnapshot;
using xfer::JobState;

constexpr int kFetchThreads = 8;
constexpr int kJobThreads = 5;
constexpr int kHostThreads = 4;  // these use the C interface
constexpr std::uint16_t kRangesAtOnce = 8;

constexpr std::uint64_t mixed(std::uint64_t number) {
  return support::patternWord(number, 1);
}

class Random {
 public:
  explicit Random(std::uint64_t seed) : engine_(seed) {}

  /// From 0 to limit - 1.
  std::uint64_t below(std::uint64_t limit) {
    return std::uniform_int_distribution<std::uint64_t>(0, limit - 1)(engine_);
  }

  bool oneIn(std::uint64_t times) { return below(times) == 0; }

  template <class Container>
  const auto& oneOf(const Container& container) {
    return *std::next(std::begin(container), static_cast<std::ptrdiff_t>(below(std::size(container))));
  }

  void rest(std::uint64_t mostMs) { std::this_thread::sleep_for(std::chrono::microseconds(below(mostMs * 1000 + 1))); }

 private:
  std::mt19937_64 engine_;
};

// ---- What is seen ----

class Outcomes {
 public:
  void count(const std::string& outcome) {
    const std::lock_guard lock(mutex_);
    ++counts_[outcome];
  }

  void wrong(const std::string& what) {
    const std::lock_guard lock(mutex_);
    ++wrong_;
    std::fprintf(stderr, "WRONG: %s\n", what.c_str());
  }

  void ended(steady_clock::duration time) {
    const std::lock_guard lock(mutex_);
    slowestEnd_ = std::max(slowestEnd_, std::chrono::duration_cast<milliseconds>(time));
  }

  [[nodiscard]] milliseconds slowestEnd() const {
    const std::lock_guard lock(mutex_);
    return slowestEnd_;
  }

  [[nodiscard]] bool allRight() const {
    const std::lock_guard lock(mutex_);
    return wrong_ == 0;
  }

  [[nodiscard]] std::uint64_t of(const std::string& outcome) const {
    const std::lock_guard lock(mutex_);
    const auto found = counts_.find(outcome);
    return found != counts_.end() ? found->second : 0;
  }

  [[nodiscard]] std::string summary() const {
    const std::lock_guard lock(mutex_);
    std::string text;
    for (const auto& [outcome, count] : counts_) text += outcome + "=" + std::to_string(count) + " ";
    return text + "slowest-end-ms=" + std::to_string(slowestEnd_.count()) + " wrong=" + std::to_string(wrong_);
  }

 private:
  mutable std::mutex mutex_;
  std::map<std::string, std::uint64_t> counts_;
  std::uint64_t wrong_ = 0;
  milliseconds slowestEnd_{0};
};

// Ends the program when a worker is busy with one thing for too long.
class Watchdog {
 public:
  class Worker {
   public:
    void begins(std::string what) {
      const std::lock_guard lock(mutex_);
      what_ = std::move(what);
      since_ = steady_clock::now();
    }

   private:
    friend class Watchdog;
    mutable std::mutex mutex_;
    std::string what_;
    steady_clock::time_point since_ = steady_clock::now();
  };

  explicit Watchdog(std::size_t workers) : workers_(workers), thread_([this] { watch(); }) {}

  ~Watchdog() {
    {
      const std::lock_guard lock(mutex_);
      over_ = true;
    }
    changed_.notify_all();
    thread_.join();
  }

  Watchdog(const Watchdog&) = delete;
  Watchdog& operator=(const Watchdog&) = delete;

  Worker& worker(std::size_t index) { return workers_[index]; }

 private:
  void watch() {
    const auto limit = 3 * support::testTimeout();
    std::unique_lock lock(mutex_);
    while (!changed_.wait_for(lock, milliseconds(500), [this] { return over_; })) {
      for (const Worker& worker : workers_) {
        const std::lock_guard workerLock(worker.mutex_);
        if (steady_clock::now() - worker.since_ < limit) continue;
        std::fprintf(stderr, "HANGS: %s\n", worker.what_.c_str());
        std::fflush(nullptr);
        std::_Exit(3);
      }
    }
  }

  std::deque<Worker> workers_;
  std::mutex mutex_;
  std::condition_variable changed_;
  bool over_ = false;  // guarded by mutex_
  std::thread thread_;
};

// ---- What is asked for ----

// A remote file, and what may come of asking for it.
struct Target {
  enum class Fate { Good, Flaky, Bad };

  std::string name;
  std::string url;
  Fate fate = Fate::Good;
  std::uint64_t size = 0;
  std::uint64_t seed = 0;
  std::set<std::int32_t> errors{};  // of fates other than Good
  bool http2 = false;
  net::Proxy proxy{};
};

// The codes with which a transfer may end whose server breaks off or stalls, or goes wrong in its answer.
const std::set<std::int32_t> kBreakages = {18, 28, 33, 52, 55, 56, 503};

// "/<kind>/<size>/<seed>", with one more part in front of it for a redirect.
std::vector<std::string> parts(const std::string& path) {
  std::vector<std::string> all;
  for (std::size_t from = 1; from <= path.size();) {
    const std::size_t to = std::min(path.find('/', from), path.size());
    all.push_back(path.substr(from, to - from));
    from = to + 1;
  }
  return all;
}

// How many bytes the right answer to a request for a file of this size has.
std::uint64_t answerBytes(const ReceivedRequest& request, std::uint64_t size) {
  if (!request.range || request.range->first >= size) return size;
  return std::min(request.range->last.value_or(size - 1) + 1, size) - request.range->first;
}

Reply fileReply(const ReceivedRequest& request, std::uint64_t size, support::ReplyOptions options) {
  if (size == 0 || !request.range) return support::full200(size, options);
  if (request.range->first >= size) return support::status(416);
  return support::range206(request, size, options);
}

// Half of the answers are good; no two requests for one range fare alike, so that a retry can succeed.
Reply flakyReply(const ReceivedRequest& request, std::uint64_t size, std::uint64_t seed) {
  static std::atomic<std::uint64_t> asked{0};
  const std::uint64_t chance = mixed(++asked);
  support::ReplyOptions part{.bodyBytes = (chance >> 8) % answerBytes(request, size), .seed = seed};
  switch (chance % 16) {
    case 0:
      return fileReply(request, size, part).close();
    case 1:
      return fileReply(request, size, part).reset();
    case 2:
      return fileReply(request, size, part).stall();
    case 3:
      return Reply().close();
    case 4:
      return Reply().reset();
    case 5:
      return support::status(503);
    case 6:
      return fileReply(
          request, size,
          {.contentRange = "bytes 1-" + std::to_string(size - 1) + "/" + std::to_string(size), .seed = seed});
    case 7:
      return fileReply(request, size, {.framing = support::Framing::Chunked, .seed = seed});
    default:
      return fileReply(request, size, {.seed = seed});
  }
}

Reply answer(const ReceivedRequest& request) {
  const std::vector<std::string> path = parts(request.path());
  if (path.size() < 3) return support::status(404);
  const std::string& kind = path.front();
  const std::uint64_t size = std::stoull(path[path.size() - 2]);
  const std::uint64_t seed = std::stoull(path.back());
  const std::string file = "/" + std::to_string(size) + "/" + std::to_string(seed);
  if (kind == "good") return fileReply(request, size, {.etag = "\"" + path.back() + "\"", .seed = seed});
  if (kind == "slow") return fileReply(request, size, {.pace = {32 * 1024, milliseconds(5)}, .seed = seed});
  if (kind == "whole") return support::full200(size, {.acceptRanges = false, .seed = seed});
  if (kind == "flaky") return flakyReply(request, size, seed);
  if (kind == "forbidden") return support::status(403);
  if (kind == "loop") return support::redirect(302, request.path());
  if (kind == "stall")
    return fileReply(request, size, {.bodyBytes = answerBytes(request, size) / 2, .seed = seed}).stall();
  if (kind == "redirect") {
    const std::uint64_t left = std::stoull(path.at(1));
    return support::redirect(left % 2 == 0 ? 302 : 307,
                             left == 0 ? "/good" + file : "/redirect/" + std::to_string(left - 1) + file);
  }
  return support::status(404);
}

class Targets {
 public:
  Targets(const support::ScriptedServer& server, const support::UnusedPort& unused) : server_(server), unused_(unused) {
    if (std::getenv("XFER_TEST_SERVERS") != nullptr) real_.emplace();
  }

  [[nodiscard]] bool knowRealServers() const { return real_.has_value(); }

  /// A file that is there and comes in full.
  Target good(Random& random) const {
    if (real_ && random.oneIn(2)) return real(random);
    static const std::string kKinds[] = {"good", "good", "slow", "whole", "redirect/0", "redirect/5"};
    return scripted(random.oneOf(kKinds), Target::Fate::Good, random);
  }

  Target flaky(Random& random) const { return scripted("flaky", Target::Fate::Flaky, random, kBreakages); }

  Target stalling(Random& random) const { return scripted("stall", Target::Fate::Bad, random, {28}); }

  /// What fails at once and for good.
  Target bad(Random& random) const {
    switch (random.below(5)) {
      case 0:
        return {"refused", unused_.url("/file"), Target::Fate::Bad, 0, 0, {7}};
      case 1:
        return {"unresolvable", "http://nonexistent.invalid/file", Target::Fate::Bad, 0, 0, {6, 28}};
      case 2:
        return {"unsupported", "ftp://127.0.0.1/file", Target::Fate::Bad, 0, 0, {1}};
      case 3: {
        Target target = good(random);
        target.name = "proxy-refused";
        target.proxy = {.host = "127.0.0.1", .port = unused_.port(), .username = {}, .password = {}};
        target.fate = Target::Fate::Bad;
        target.errors = {7};
        return target;
      }
      default:
        return scripted("loop", Target::Fate::Bad, random, {47});
    }
  }

  /// A range's refusal has no bytes, which makes it a short one; the status is a code only of the first question.
  Target forbidden(Random& random) const { return scripted("forbidden", Target::Fate::Bad, random, {403, 18}); }

 private:
  Target scripted(const std::string& kind, Target::Fate fate, Random& random,
                  std::set<std::int32_t> errors = {}) const {
    static const std::uint64_t kSizes[] = {1, 16'384, 65'537, 300'001, 1 << 20};
    const std::uint64_t size = fate == Target::Fate::Good && random.oneIn(16) ? 0 : random.oneOf(kSizes);
    const std::uint64_t seed = random.below(1000);
    const std::string path = "/" + kind + "/" + std::to_string(size) + "/" + std::to_string(seed);
    return {kind, server_.url(path), fate, size, seed, std::move(errors)};
  }

  Target real(Random& random) const {
    static const RealServer kServers[] = {RealServer::Nginx,    RealServer::Nginx,
                                          RealServer::NginxTls, RealServer::NginxTls,
                                          RealServer::NginxH2,  RealServer::NginxShortH2,
                                          RealServer::Apache,   RealServer::Lighttpd,
                                          RealServer::Python,   RealServer::NginxWithoutRanges};
    const RealServer server = random.oneOf(kServers);
    const bool small = !random.oneIn(10);
    Target target{support::nameOf(server), real_->url(server, small ? "/1m.bin" : "/16m.bin"), Target::Fate::Good,
                  small ? RealServers::kSmallFileBytes : RealServers::kBigFileBytes};
    target.http2 = server == RealServer::NginxH2 || server == RealServer::NginxShortH2;
    if (random.oneIn(8))
      target.proxy = {.host = "127.0.0.1", .port = real_->proxyPort(), .username = {}, .password = {}};
    return target;
  }

  const support::ScriptedServer& server_;
  const support::UnusedPort& unused_;
  std::optional<RealServers> real_;
};

// ---- The workers ----

struct World {
  const Targets& targets;
  Outcomes& outcomes;
  const std::atomic<bool>& over;
  const std::string folder;
  const bool adaptive;
  std::atomic<std::int64_t> liveJobs{0};
};

class FetchWorker {
 public:
  FetchWorker(World& world, Watchdog::Worker& watched, std::uint64_t seed)
      : world_(world), watched_(watched), random_(seed) {}

  void run() {
    while (!world_.over) {
      switch (random_.below(12)) {
        case 0:
          fetch(world_.targets.bad(random_));
          break;
        case 1:
        case 2:
          fetch(world_.targets.flaky(random_));
          break;
        case 3:
          if (random_.oneIn(4)) fetch(world_.targets.stalling(random_));
          break;
        case 4:
          askSize(world_.targets.good(random_));
          break;
        case 5:
          smuggle(world_.targets.good(random_));
          break;
        default:
          fetch(world_.targets.good(random_));
      }
    }
  }

 private:
  void fetch(const Target& target) {
    watched_.begins("fetch of " + target.url);
    xfer::Request request;
    request.url = target.url;
    request.proxy = target.proxy;
    request.cookie = random_.oneIn(4) ? "a=b" : "";
    if (random_.oneIn(4)) request.headers.emplace_back("X-Extra: line");
    request.quiet = random_.oneIn(2);
    request.timeoutSec = 0;
    if (target.fate != Target::Fate::Good) {
      request.connectTimeoutSec = 3;
      request.timeoutSec = target.errors.count(28) != 0 ? 2 : 0;
    }
    const xfer::Response response = random_.oneIn(4) ? xfer::fetchAsync(request).get() : xfer::fetch(request);
    judge(target, response);
  }

  void judge(const Target& target, const xfer::Response& response) {
    const std::string seen = target.url + " gave code " + std::to_string(response.curlCode) + ", status " +
                             std::to_string(response.status) + ", " + std::to_string(response.body.size()) + " bytes";
    if (response.curlCode != 0) {
      world_.outcomes.count("fetch-failed");
      if (target.errors.count(response.curlCode) == 0) world_.outcomes.wrong("fetch: " + seen);
      return;
    }
    if (target.fate == Target::Fate::Bad || (target.fate == Target::Fate::Good && response.status != 200)) {
      world_.outcomes.wrong("fetch: " + seen);
    } else if (response.status == 200 && response.body != support::patternBytes(0, target.size, target.seed)) {
      world_.outcomes.wrong("fetch: other bytes: " + seen);
    }
    world_.outcomes.count("fetch-done");
  }

  void askSize(const Target& target) {
    watched_.begins("size of " + target.url);
    // The answer to a range of an empty file names no size.
    if (target.size == 0) return;
    const std::int64_t size = xfer::getContentLength(target.url, target.proxy, "");
    if (size != static_cast<std::int64_t>(target.size)) {
      world_.outcomes.wrong("size of " + target.url + " is said to be " + std::to_string(size));
    }
    world_.outcomes.count("size");
  }

  void smuggle(const Target& target) {
    watched_.begins("header with a line break to " + target.url);
    xfer::Request request;
    request.url = target.url;
    request.headers = {"X-One: 1\r\nX-Two: 2"};
    const std::int32_t code = xfer::fetch(request).curlCode;
    if (code != 43) world_.outcomes.wrong("a header with a line break gave code " + std::to_string(code));
    world_.outcomes.count("refused-header");
  }

  World& world_;
  Watchdog::Worker& watched_;
  Random random_;
};

class JobWorker {
 public:
  JobWorker(World& world, Watchdog::Worker& watched, std::uint64_t seed, const std::string& name)
      : world_(world), watched_(watched), random_(seed), path_(world.folder + "/" + name) {}

  void run() {
    while (!world_.over) {
      const std::uint64_t kind = random_.below(16);
      const Target target = kind == 0   ? world_.targets.bad(random_)
                            : kind == 1 ? world_.targets.forbidden(random_)
                            : kind == 2 ? world_.targets.stalling(random_)
                            : kind < 6  ? world_.targets.flaky(random_)
                                        : world_.targets.good(random_);
      world_.liveJobs += 1;
      runOne(target);
      world_.liveJobs -= 1;
    }
  }

 private:
  void runOne(const Target& target) {
    DownloadRequest request;
    request.url = target.url;
    request.path = path_;
    request.proxy = target.proxy;
    if (random_.oneIn(4)) request.headers.emplace_back("X-Extra: line");
    if (random_.oneIn(3)) request.knownSize = target.size;
    std::optional<DownloadJob> job(std::in_place, request, policyFor(target), optionsFor(target));
    watched_.begins("job on " + target.url);
    job->start();

    // What only ends by itself after its time-outs and retries is mostly not waited for.
    const bool patient = target.fate == Target::Fate::Good ||
                         (target.fate == Target::Fate::Flaky && random_.oneIn(3)) ||
                         (target.fate == Target::Fate::Bad && target.errors.count(28) == 0);
    switch (patient ? random_.below(8) : 1 + random_.below(4)) {
      case 1:
        random_.rest(40);
        endTimed("cancel", target, [&] {
          job->cancel();
          job->wait();
        });
        judge(target, job->snapshot(), Disturbed::Ended);
        break;
      case 2:
        random_.rest(40);
        endTimed("destroy", target, [&] { job.reset(); });
        world_.outcomes.count("job-destroyed");
        break;
      case 3: {
        random_.rest(20);
        request.path += ".other";
        DownloadJob other(request, {}, optionsFor(target));
        endTimed("assign", target, [&] { *job = std::move(other); });
        world_.outcomes.count("job-replaced");
        break;
      }
      case 4:
        pauseAndResume(*job, target);
        break;
      case 5: {
        DownloadJob moved(std::move(*job));
        moved.wait();
        judge(target, moved.snapshot(), Disturbed::No);
        break;
      }
      default:
        while (!job->waitFor(5)) lookAt(*job, target);
        judge(target, job->snapshot(), Disturbed::No);
    }
  }

  DownloadPolicy policyFor(const Target& target) {
    static const std::uint64_t kChunks[] = {65'536, 131'072, 200'000};
    DownloadPolicy policy;
    policy.numThreads = random_.oneIn(4) ? 1 : kRangesAtOnce;
    policy.rampChunks = random_.oneIn(2);
    policy.initialChunkSize = 16'384;
    policy.maxChunkSize = target.size > RealServers::kSmallFileBytes ? 1 << 20 : random_.oneOf(kChunks);
    policy.maxDownloadSpeed = random_.oneIn(4) ? 2'000'000 + random_.below(20'000'000) : 0;
    policy.useHttp2 = target.http2;
    policy.lowSpeedTimeSec = target.fate == Target::Fate::Good ? 30 : 1;
    policy.connectTimeoutSec = 3;
    policy.probeTimeoutSec = target.fate == Target::Fate::Good ? 60 : 2;
    return policy;
  }

  xfer::DownloadOptions optionsFor(const Target& target) {
    xfer::DownloadOptions options;
    if (random_.oneIn(2)) options.setHistory(64);
    if (!world_.adaptive) return options;
    options.setPlan(xfer::DownloadPlan::Adaptive);
    if (random_.oneIn(2)) options.setFirstRange(16'384);
    if (target.fate != Target::Fate::Good) options.setMaxTries(3);
    return options;
  }

  // An adaptive plan keeps what comes before a server stalls, and so may have it all in the end.
  [[nodiscard]] bool mayComplete(const Target& target) const {
    return target.fate != Target::Fate::Bad || (world_.adaptive && target.name == "stall");
  }

  enum class Disturbed { No, Paused, Ended };

  // A pause can cost a job its retry, and one that falls on its very end keeps it from saying so: then it is ended.
  void pauseAndResume(DownloadJob& job, const Target& target) {
    const auto deadline = steady_clock::now() + milliseconds(3000);
    for (std::uint64_t times = 1 + random_.below(5); times > 0; --times) {
      random_.rest(20);
      job.pause();
      random_.rest(20);
      job.resume();
    }
    while (!isFinal(job.snapshot().state) && steady_clock::now() < deadline) {
      lookAt(job, target);
      random_.rest(4);
    }
    const bool ended = isFinal(job.snapshot().state);
    if (!ended) {
      endTimed("cancel after pauses", target, [&] {
        job.cancel();
        job.wait();
      });
      world_.outcomes.count("job-given-up-after-pause");
    }
    judge(target, job.snapshot(), ended ? Disturbed::Paused : Disturbed::Ended);
  }

  // As those who draw what a job does.
  void lookAt(const DownloadJob& job, const Target& target) {
    for (const xfer::RangeDetails& range : job.details().ranges()) {
      if (range.position < range.start) world_.outcomes.wrong("a range goes backwards: " + target.url);
    }
    std::uint64_t timeNs = 0;
    for (const xfer::DownloadEvent& event : job.history()) {
      if (event.timeNs < timeNs) world_.outcomes.wrong("time falls in the history of a job on " + target.url);
      timeNs = event.timeNs;
    }
  }

  template <class Action>
  void endTimed(const char* what, const Target& target, Action action) {
    watched_.begins(std::string(what) + " of a job on " + target.url);
    const auto begin = steady_clock::now();
    action();
    world_.outcomes.ended(steady_clock::now() - begin);
  }

  static bool isFinal(JobState state) {
    return state == JobState::Completed || state == JobState::Failed || state == JobState::Cancelled;
  }

  void judge(const Target& target, const DownloadSnapshot& snapshot, Disturbed disturbed) {
    static const char* const kDisturbances[] = {"left alone", "paused", "ended"};
    const std::string seen = target.url + (target.proxy.host.empty() ? "" : " through a proxy") + ", " +
                             kDisturbances[static_cast<int>(disturbed)] + ", ended in state " +
                             std::to_string(static_cast<int>(snapshot.state)) + " with error " +
                             std::to_string(snapshot.errorCode) + ", " + std::to_string(snapshot.bytesDone) + " of " +
                             std::to_string(snapshot.totalBytes) + " bytes";
    switch (snapshot.state) {
      case JobState::Completed:
        world_.outcomes.count("job-completed");
        if (!mayComplete(target)) world_.outcomes.wrong("job: " + seen);
        if (const std::string error = support::patternError(path_, target.size, target.seed); !error.empty()) {
          world_.outcomes.wrong("job: " + seen + ": " + error);
        }
        break;
      case JobState::Failed:
        world_.outcomes.count("job-failed");
        if (target.errors.count(snapshot.errorCode) == 0) world_.outcomes.wrong("job: " + seen);
        break;
      case JobState::Cancelled:
        world_.outcomes.count("job-cancelled");
        if (disturbed != Disturbed::Ended) world_.outcomes.wrong("job: " + seen);
        break;
      default:
        world_.outcomes.wrong("job: " + seen);
    }
  }

  World& world_;
  Watchdog::Worker& watched_;
  Random random_;
  const std::string path_;
};

// A host of the C interface.
class HostWorker {
 public:
  HostWorker(World& world, Watchdog::Worker& watched, std::uint64_t seed, const std::string& name)
      : world_(world), watched_(watched), random_(seed), path_(world.folder + "/" + name) {}

  void run() {
    while (!world_.over) {
      switch (random_.below(4)) {
        case 0:
          request(/*async=*/false);
          break;
        case 1:
          request(/*async=*/true);
          break;
        default:
          download(random_.oneIn(4) ? world_.targets.flaky(random_) : world_.targets.good(random_));
      }
    }
  }

 private:
  static std::string text(const net::Proxy& proxy) {
    return proxy.host.empty() ? "" : proxy.host + ":" + std::to_string(proxy.port);
  }

  void request(bool async) {
    const Target target = random_.oneIn(6) ? world_.targets.bad(random_) : world_.targets.good(random_);
    watched_.begins("request of the C interface for " + target.url);
    xfer_setQuietMode(random_.oneIn(2));
    sys::DataBuff headers;
    sys::DataBuff body;
    std::int32_t code = 0;
    if (async) {
      std::uint64_t id = 0;
      code = xfer_downloadAsync(target.url.c_str(), &id, "X-Extra: line\n", "", "a=b", text(target.proxy).c_str());
      if (code == 0) code = xfer_queryAsyncBuffer(id, &headers, &body);
    } else {
      code = xfer_download(target.url.c_str(), nullptr, nullptr, &headers, &body, nullptr, text(target.proxy).c_str());
    }
    if (code == 100009 && target.size == 0) code = 0;  // done, with an empty body
    world_.outcomes.count(code == 0 ? "c-request-done" : "c-request-failed");
    if (code != 0 ? target.errors.count(code) == 0
                  : body.toString() != support::patternBytes(0, target.size, target.seed)) {
      world_.outcomes.wrong("C request: " + target.url + " gave code " + std::to_string(code) + ", " +
                            std::to_string(body.size()) + " bytes");
    }
  }

  void download(const Target& target) {
    watched_.begins("download of the C interface from " + target.url);
    world_.liveJobs += 1;
    xfer_setMaxDownloadSpeed(random_.oneIn(8) ? 20'000'000 : 0);
    const std::uint64_t id =
        xfer_downloadFile(target.url.c_str(), path_.c_str(), "X-Extra: line\n", random_.oneIn(4) ? 0 : kRangesAtOnce,
                          nullptr, 0, random_.oneIn(4) ? target.size : 0, text(target.proxy).c_str());
    bool paused = false;
    const std::uint64_t patience = random_.below(8);
    const auto deadline = steady_clock::now() + milliseconds(patience == 0 ? 30 : 3000);
    std::uint64_t done = 0;
    std::uint32_t error = 0;
    std::uint8_t finished = 0;
    while (true) {
      xfer_getProgress(id, &done, &error, &finished);
      if (finished != 0) break;
      if ((patience == 0 || paused || target.fate != Target::Fate::Good) && steady_clock::now() > deadline) break;
      random_.rest(8);
      if (patience == 1 && random_.oneIn(4)) {
        paused = true;
        xfer_downloadPause(id);
        random_.rest(8);
        xfer_downloadResume(id);
      }
    }
    if (finished == 0) {
      const auto begin = steady_clock::now();
      if (!xfer_stopDownloadHandle(id)) world_.outcomes.wrong("C download: " + target.url + " was not there to stop");
      world_.outcomes.ended(steady_clock::now() - begin);
      world_.outcomes.count("c-download-stopped");
    } else {
      judge(target, error);
    }
    world_.liveJobs -= 1;
  }

  void judge(const Target& target, std::uint32_t error) {
    world_.outcomes.count(error == 0 ? "c-download-completed" : "c-download-failed");
    const std::string wrong = error == 0 ? support::patternError(path_, target.size, target.seed)
                              : target.errors.count(static_cast<std::int32_t>(error)) == 0 ? "failed"
                                                                                           : "";
    if (!wrong.empty()) {
      world_.outcomes.wrong("C download: " + target.url + ", error " + std::to_string(error) + ": " + wrong);
    }
  }

  World& world_;
  Watchdog::Worker& watched_;
  Random random_;
  const std::string path_;
};

// ---- The program ----

struct Options {
  std::uint64_t seconds = 20;
  std::uint64_t seed = std::random_device()();
  bool adaptive = false;  // the jobs' plan
};

std::optional<Options> parse(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; i += 2) {
    const std::string name = argv[i];
    const std::string_view text = i + 1 < argc ? argv[i + 1] : "";
    if (name == "--plan" && (text == "stated" || text == "adaptive")) {
      options.adaptive = text == "adaptive";
      continue;
    }
    char* end = nullptr;
    const std::uint64_t value = i + 1 < argc ? std::strtoull(argv[i + 1], &end, 10) : 0;
    if (end == nullptr || end == argv[i + 1] || *end != '\0') return std::nullopt;
    if (name == "--seconds") {
      options.seconds = value;
    } else if (name == "--seed") {
      options.seed = value;
    } else {
      return std::nullopt;
    }
  }
  return options;
}

// Lets come what comes with a process' first thread and first socket, and stays.
void useThreadsAndSockets() {
  const support::ScriptedServer server([](const ReceivedRequest&) { return support::status(204); });
  support::RawClient client(server.port());
  client.send("GET / HTTP/1.0\r\n\r\n");
  client.receiveAll();
}

constexpr const char* kNeeded[] = {
    "fetch-done",    "fetch-failed",  "size",         "refused-header", "job-completed",        "job-failed",
    "job-cancelled", "job-destroyed", "job-replaced", "c-request-done", "c-download-completed", "c-download-stopped"};

bool allHappened(const Outcomes& outcomes) {
  return std::all_of(std::begin(kNeeded), std::end(kNeeded),
                     [&](const char* needed) { return outcomes.of(needed) != 0; });
}

void runWorkers(const Options& options, Outcomes& outcomes) {
  const support::TempDir folder;
  support::ScriptedServer server(answer);
  const support::UnusedPort unused;
  const Targets targets(server, unused);
  if (!targets.knowRealServers()) std::printf("XFER_TEST_SERVERS is not set: no TLS, no HTTP/2\n");
  std::atomic<bool> over{false};
  World world{targets, outcomes, over, folder.path(), options.adaptive};
  Watchdog watchdog(kFetchThreads + kJobThreads + kHostThreads);

  std::vector<std::thread> threads;
  for (int i = 0; i < kFetchThreads + kJobThreads + kHostThreads; ++i) {
    threads.emplace_back([&world, &watchdog, i, seed = mixed(options.seed + static_cast<std::uint64_t>(i))] {
      Watchdog::Worker& watched = watchdog.worker(static_cast<std::size_t>(i));
      const std::string name = "file" + std::to_string(i);
      if (i < kFetchThreads) {
        FetchWorker(world, watched, seed).run();
      } else if (i < kFetchThreads + kJobThreads) {
        JobWorker(world, watched, seed, name).run();
      } else {
        HostWorker(world, watched, seed, name).run();
      }
      watched.begins("nothing any more");
    });
  }
  std::this_thread::sleep_for(std::chrono::seconds(options.seconds));
  // A slow machine comes to the rarest outcome later.
  static_cast<void>(support::waitUntil([&] { return allHappened(outcomes); }));
  over = true;
  for (std::thread& thread : threads) thread.join();
  if (world.liveJobs != 0) outcomes.wrong("jobs are left: " + std::to_string(world.liveJobs));
}

}  // namespace

int main(int argc, char** argv) {
  const std::optional<Options> options = parse(argc, argv);
  if (!options) {
    std::fprintf(stderr, "usage: xfer_stress [--seconds N] [--seed S] [--plan stated|adaptive]\n");
    return 2;
  }
  useThreadsAndSockets();
  const std::size_t threads = support::threadCount();
  const std::size_t handles = support::openFileCount();

  Outcomes outcomes;
  runWorkers(*options, outcomes);
  xfer::shutdown();

  // A name's lookup may outlive the request that asked for it, and a joined thread is listed for a moment still.
  if (!support::waitUntil([&] { return support::threadCount() <= threads && support::openFileCount() <= handles; })) {
    outcomes.wrong("left behind: threads " + std::to_string(support::threadCount()) + ", at first " +
                   std::to_string(threads) + "; descriptors " + std::to_string(support::openFileCount()) +
                   ", at first " + std::to_string(handles));
  }
  // Five seconds for what takes a tenth of one: the machine has far fewer processors than this program has threads.
  if (outcomes.slowestEnd() > support::testTimeout() / 4) outcomes.wrong("a job took too long to end");
  for (const char* const needed : kNeeded) {
    if (outcomes.of(needed) == 0) outcomes.wrong(std::string("there was no ") + needed);
  }
  std::printf("seed=%llu %s\n", static_cast<unsigned long long>(options->seed), outcomes.summary().c_str());
  return outcomes.allRight() ? 0 : 1;
}

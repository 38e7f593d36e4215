// A download job against a server that answers as the input says.  The job ends; and a file that it calls complete is
// right.
//
// The first byte says how the job is made, its plan too, and which of two servers it meets:
//   any bytes (below 0x80)   The rest are the answers, one a request, separated by a byte that HTTP has no use for; the
//                            last one is given to all further requests.  Each connection is closed behind its answer.
//                            A complete file is not longer than was known.
//   two versions of a file   The second byte tells how far off the known size is, each two further ones are an answer.
//                            Then the server behaves.  Every answer tells its version by what its head says, or by
//                            where its body ends: a complete file is one of the two.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "download_job_impl.h"
#include "fuzz/promise.h"
#include "steady_time.h"
#include "support/job_run.h"
#include "support/pattern.h"
#include "support/scripted_server.h"
#include "support/temp_dir.h"

namespace {

using fuzz::promise;
using support::ReceivedRequest;
using support::Reply;

// ---- Answers of any bytes ----

constexpr char kSeparator = '\x1e';
constexpr std::uint64_t kKnownSize = 40;
constexpr std::uint64_t kSmallChunk = 10;

class AnyBytes {
 public:
  explicit AnyBytes(std::string_view text) {
    for (;;) {
      const std::size_t end = text.find(kSeparator);
      answers_.emplace_back(text.substr(0, end));
      if (end == std::string_view::npos) return;
      text.remove_prefix(end + 1);
    }
  }

  Reply next() {
    const std::string& answer = answers_[std::min(next_++, answers_.size() - 1)];
    return Reply().send(answer).close();
  }

 private:
  std::vector<std::string> answers_;
  std::size_t next_ = 0;
};

// A redirect would lead to hosts that are none of a test's business.
bool mayRedirect(std::string_view text) {
  constexpr std::string_view kLocation = "location";
  return std::search(text.begin(), text.end(), kLocation.begin(), kLocation.end(),
                     [](char a, char b) { return (a | 0x20) == b; }) != text.end();
}

// ---- Answers of two versions of a file ----

constexpr std::uint64_t kSize = 20'009;
constexpr std::uint64_t kChunk = 5'000;

// What tells the versions apart.
enum class Telling { Size, LastModified, WeakTag, StrongTag };

// Takes bits off a number, the lowest first.
class Bits {
 public:
  explicit Bits(std::uint32_t bits) : bits_(bits) {}

  std::uint32_t take(std::uint32_t choices) {
    const std::uint32_t taken = bits_ % choices;
    bits_ /= choices;
    return taken;
  }

 private:
  std::uint32_t bits_;
};

class TwoVersions {
 public:
  TwoVersions(Telling telling, bool smaller, bool knownSize, std::string_view script)
      : telling_(telling), knownSize_(knownSize), script_(script) {
    sizes_ = {kSize, telling != Telling::Size ? kSize : smaller ? kSize - kChunk - 8 : kSize + kChunk + 4};
  }

  Reply next(const ReceivedRequest& request) {
    Answer answer{.from = 0, .to = 0, .size = sizes_[version_], .version = version_};
    std::uint32_t kind = 0;
    Bits bits(0);
    if (next_ + 2 <= script_.size()) {
      const auto byte = [&] { return static_cast<std::uint32_t>(static_cast<std::uint8_t>(script_[next_++])); };
      const std::uint32_t low = byte();
      bits = Bits(low | byte() << 8);
      kind = bits.take(kKinds);
      answer.version = version_ = bits.take(2);
      answer.framing = static_cast<Framing>(bits.take(3));
      answer.otherTag = bits.take(4) == 3;
      answer.size = sizes_[version_];
    }
    if (request.range) {
      answer.from = request.range->first;
      answer.to = std::min(request.range->last.value_or(answer.size - 1), answer.size - 1) + 1;
      if (answer.from >= answer.size)
        return support::status(416, "", {"Content-Range: bytes */" + std::to_string(answer.size)});
    } else {
      answer.to = answer.size;
    }
    answer.namedTo = answer.to;
    answer.total = answer.size;
    return play(request, kind, bits, answer);
  }

  // Whether a complete file with this content is right.
  [[nodiscard]] bool isRight(const std::string& content, std::uint64_t known) const {
    for (const std::uint64_t version : {0U, 1U}) {
      const std::uint64_t size = sizes_[version];
      const std::uint64_t whole = known != 0 ? std::min(known, size) : size;
      const bool length = content.size() == whole || (mayBeCut_ && !content.empty() && content.size() < whole);
      if (length && content == support::patternBytes(0, content.size(), version)) return true;
    }
    return false;
  }

 private:
  enum class Framing { Length, Chunked, UntilClose };
  static constexpr std::uint32_t kKinds = 14;

  struct Answer {
    std::uint64_t from;
    std::uint64_t to;
    std::uint64_t size;
    std::uint64_t version;
    Framing framing = Framing::Length;
    bool otherTag = false;  // another validator of the same version
    std::uint64_t namedTo = 0;
    std::optional<std::uint64_t> total{};
    std::optional<std::uint64_t> announced{};
    bool breaks = false;  // the connection ends before the body does
    std::string more{};   // header lines
  };

  Reply play(const ReceivedRequest& request, std::uint32_t kind, Bits bits, Answer answer) {
    const std::uint32_t amount = bits.take(64);
    const std::uint64_t length = answer.to - answer.from;
    const std::uint64_t some = 1 + length * amount / 80;  // less than all, but for the shortest ones
    switch (kind) {
      case 0:
        return range(answer);
      case 1:
        return whole(answer);
      case 2:  // capped, as it says
        answer.namedTo = answer.to = answer.from + std::min(some, length);
        return range(answer);
      case 3:  // of unknown size
        if (telling_ != Telling::Size) answer.total.reset();
        return range(answer);
      case 4:  // capped, of unknown size
        if (telling_ == Telling::Size) return range(answer);
        answer.total.reset();
        answer.namedTo = answer.to = answer.from + std::min(some, length);
        mayBeCut_ = true;
        return range(answer);
      case 5:  // of a size that no version has
        answer.total = std::max(answer.to, answer.size + 1 + amount % 4 - 2 * (amount / 4 % 2) * (1 + amount % 4));
        mayBeCut_ = true;
        return range(answer);
      case 6:  // the whole file, but its connection breaks
        answer.from = 0;
        answer.announced = answer.size;
        answer.to = std::min(1 + answer.size * amount / 64, answer.size);
        answer.breaks = true;
        return whole(answer);
      case 7:  // the range, but its connection breaks
        answer.announced = length;
        answer.to = answer.from + std::min(some, length);
        answer.breaks = true;
        return range(answer);
      case 8:  // names more than it sends
        answer.to = answer.from + std::min(some, length);
        return range(answer);
      case 9: {
        constexpr std::array kStatuses{203, 204, 300, 403, 404, 416, 429, 500, 503, 503, 503, 503};
        return support::status(kStatuses[amount % kStatuses.size()], "not the file");
      }
      case 10:  // a redirect with a body, to the next answer
        return support::status(302, std::string(145, 'r'), {"Location: " + request.path()});
      case 11:  // other bytes than asked for
        answer.more = amount % 2 == 0 ? "Content-Type: multipart/byteranges; boundary=x\r\n" : "";
        if (amount % 2 != 0) ++answer.from;
        return answer.from < answer.to ? range(answer) : Reply().close();
      case 12:  // a length that does not count, or two that differ
        answer.more = "Content-Length: " + std::to_string(amount) + "\r\n";
        if (answer.framing == Framing::UntilClose) answer.framing = Framing::Length;
        return amount % 2 == 0 ? range(answer) : whole(answer);
      default:  // a range of no bytes
        answer.to = answer.from;
        answer.announced = 0;
        return range(answer);
    }
  }

  // A whole file of known size is cut there, so that its own is not seen.
  [[nodiscard]] bool needsLength() const { return telling_ == Telling::Size && knownSize_; }

  Reply range(const Answer& answer) const {
    std::string head = "HTTP/1.1 206 Partial Content\r\nContent-Range: bytes " + std::to_string(answer.from) + "-" +
                       std::to_string(std::max(answer.namedTo, answer.from + 1) - 1) + "/" +
                       (answer.total ? std::to_string(*answer.total) : "*") + "\r\n";
    return send(std::move(head), answer);
  }

  Reply whole(Answer answer) {
    answer.from = 0;
    if (!answer.breaks) answer.to = answer.size;
    if (needsLength()) answer.framing = Framing::Length;
    // That the connection breaks is not seen then.
    if (answer.breaks && answer.framing == Framing::UntilClose) mayBeCut_ = true;
    return send("HTTP/1.1 200 OK\r\nAccept-Ranges: bytes\r\n", answer);
  }

  [[nodiscard]] std::string validator(const Answer& answer) const {
    const std::string name = (answer.version == 0 ? "one" : "two") + std::string(answer.otherTag ? " again" : "");
    switch (telling_) {
      case Telling::Size:
        break;
      case Telling::LastModified:
        return "Last-Modified: " + name + "\r\n";
      case Telling::WeakTag:
        return "ETag: W/\"" + name + "\"\r\n";
      case Telling::StrongTag:
        return "ETag: \"" + name + "\"\r\n";
    }
    return "";
  }

  Reply send(std::string head, const Answer& answer) const {
    head += validator(answer) + answer.more;
    const std::uint64_t length = answer.to - answer.from;
    Reply reply;
    switch (answer.framing) {
      case Framing::Length:
        reply.send(head + "Content-Length: " + std::to_string(answer.announced.value_or(length)) + "\r\n\r\n");
        reply.sendPattern(answer.from, answer.to, {}, answer.version);
        break;
      case Framing::Chunked: {
        char size[24];
        std::snprintf(size, sizeof size, "%llx\r\n", static_cast<unsigned long long>(length + (answer.breaks ? 1 : 0)));
        reply.send(head + "Transfer-Encoding: chunked\r\n\r\n");
        if (length != 0) reply.send(size).sendPattern(answer.from, answer.to, {}, answer.version);
        // Anything further would be the byte of the chunk that is missing.
        if (!answer.breaks) reply.send(length != 0 ? "\r\n0\r\n\r\n" : "0\r\n\r\n");
        break;
      }
      case Framing::UntilClose:
        reply.send(head + "Connection: close\r\n\r\n").sendPattern(answer.from, answer.to, {}, answer.version).close();
        break;
    }
    if (answer.breaks) reply.close();
    return reply;
  }

  const Telling telling_;
  const bool knownSize_;
  std::array<std::uint64_t, 2> sizes_{};
  std::string script_;
  std::size_t next_ = 0;       // byte of it
  std::uint64_t version_ = 0;  // of the last answer
  bool mayBeCut_ = false;      // an answer said, as far as a client can see, that the file ends where it does not
};

// ---- The job ----

// What the server of all inputs answers just now.
class Answers {
 public:
  void set(AnyBytes answers) {
    const std::lock_guard lock(mutex_);
    ++input_;
    anyBytes_.emplace(std::move(answers));
    twoVersions_.reset();
  }

  void set(const TwoVersions& answers) {
    const std::lock_guard lock(mutex_);
    ++input_;
    twoVersions_.emplace(answers);
    anyBytes_.reset();
  }

  Reply next(const ReceivedRequest& request) {
    const std::lock_guard lock(mutex_);
    if (request.path() != pathLocked()) return Reply().close();  // a late one, of an input that is over
    return twoVersions_ ? twoVersions_->next(request) : anyBytes_->next();
  }

  [[nodiscard]] std::string path() const {
    const std::lock_guard lock(mutex_);
    return pathLocked();
  }

  [[nodiscard]] bool isRight(const std::string& content, std::uint64_t known) const {
    const std::lock_guard lock(mutex_);
    return twoVersions_->isRight(content, known);
  }

 private:
  [[nodiscard]] std::string pathLocked() const { return "/" + std::to_string(input_); }

  mutable std::mutex mutex_;
  std::uint64_t input_ = 0;
  std::optional<AnyBytes> anyBytes_;
  std::optional<TwoVersions> twoVersions_;
};

constexpr std::uint64_t kHaste = 100;  // the delays of an adaptive plan pass so many times as fast

struct World {
  Answers answers;
  const support::ScriptedServer server{[this](const ReceivedRequest& request) { return answers.next(request); }};
  const support::TempDir folder;
  const std::string path = folder.file("out");

  xfer::DownloadSnapshot download(std::uint64_t knownSize, const xfer::DownloadPolicy& policy, bool adaptive) {
    xfer::JobEnvironment environment = xfer::realJobEnvironment();
    environment.waitForRetry = [](std::uint64_t, xfer::StopSignal&) {};
    environment.nowNs = [] { return kHaste * xfer::steadyNs(); };
    environment.hosts = nullptr;  // no input knows of another one
    xfer::DownloadOptions options;
    if (adaptive) {
      options.setPlan(xfer::DownloadPlan::Adaptive).setMaxTries(4).setLongestWait(5);
      options.setFirstRange(policy.initialChunkSize);
    }
    xfer::DownloadJob::Impl job(support::requestFor(server.url(answers.path()), path, knownSize), policy, environment,
                                options.values());
    const xfer::DownloadSnapshot end = support::run(job);
    promise(xfer::isFinal(end.state), "the job ends");
    promise((end.state == xfer::JobState::Failed) == (end.errorCode != 0), "only a failure has a code");
    return end;
  }
};

World& world() {
  static World one;
  return one;
}

void meetsAnyBytes(std::uint8_t first, std::string_view text) {
  if (mayRedirect(text)) return;
  world().answers.set(AnyBytes(text));
  Bits bits(first);
  const bool known = bits.take(2) != 0;
  const auto numThreads = static_cast<std::uint16_t>(1 + bits.take(3));
  const bool adaptive = bits.take(2) != 0;
  const auto end = world().download(known ? kKnownSize : 0, support::chunksOf(kSmallChunk, numThreads), adaptive);
  if (end.state != xfer::JobState::Completed || !known) return;
  promise(support::fileSize(world().path).value_or(kKnownSize + 1) <= kKnownSize,
          "the file is not longer than it is known to be");
}

void meetsTwoVersions(std::uint8_t first, std::string_view script) {
  Bits bits(first & 0x7F);
  const auto telling = static_cast<Telling>(bits.take(4));
  const bool isKnown = bits.take(2) != 0;
  const auto numThreads = static_cast<std::uint16_t>(1 + 3 * bits.take(2));
  const bool smaller = bits.take(2) != 0;
  const bool adaptive = bits.take(2) != 0;
  std::uint64_t known = 0;
  if (isKnown) {
    // Exact, too small or too large.
    constexpr std::array<std::uint64_t, 4> kKnown{kSize, kSize, kSize - 3'000, kSize + 3'000};
    known = kKnown[script.empty() ? 0 : static_cast<std::uint8_t>(script.front()) % kKnown.size()];
  }
  script.remove_prefix(std::min<std::size_t>(1, script.size()));
  world().answers.set(TwoVersions(telling, smaller, isKnown, script));
  const auto end = world().download(known, support::chunksOf(kChunk, numThreads), adaptive);
  if (end.state != xfer::JobState::Completed) return;
  const auto content = support::readFile(world().path);
  promise(content && world().answers.isRight(*content, known), "a complete file is one version of it");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::string_view rest(reinterpret_cast<const char*>(data) + 1, size - 1);
  if (data[0] < 0x80) {
    meetsAnyBytes(data[0], rest);
  } else {
    meetsTwoVersions(data[0], rest);
  }
  return 0;
}

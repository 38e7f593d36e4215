// bare_loop URL FILE: the least that a download over several connections with libcurl needs, for comparison.
//
// One multi handle on one thread: a HEAD for the size, then eight equal ranges, written at their places from the
// callback.  A range whose transfer fails is asked for again from where it stopped, a few times.  Ranges do not move
// and nothing is checked: no validator, no status but errors, no time limit.
//
// Threads: main only.
// Errors: exit code 1 for anything that fails, 2 for usage.
#include <curl/curl.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

constexpr std::uint64_t kConnections = 8;
constexpr long kBuffer = 512L * 1024;
constexpr int kMostTries = 5;

struct Range {
  CURL* easy = nullptr;
  int file = -1;
  std::uint64_t begin = 0;
  std::uint64_t end = 0;  // exclusive
  int tries = 0;
};

[[noreturn]] void fail(const char* what) {
  std::fprintf(stderr, "bare_loop: %s\n", what);
  std::exit(1);
}

std::size_t store(char* bytes, std::size_t, std::size_t size, void* place) {
  auto* const range = static_cast<Range*>(place);
  const ssize_t count = pwrite(range->file, bytes, size, static_cast<off_t>(range->begin));
  range->begin += count > 0 ? static_cast<std::uint64_t>(count) : 0;
  return count > 0 ? static_cast<std::size_t>(count) : 0;
}

CURL* request(const char* url) {
  CURL* const easy = curl_easy_init();
  curl_easy_setopt(easy, CURLOPT_URL, url);
  curl_easy_setopt(easy, CURLOPT_BUFFERSIZE, kBuffer);
  curl_easy_setopt(easy, CURLOPT_FAILONERROR, 1L);
  curl_easy_setopt(easy, CURLOPT_PROXY, "");
  return easy;
}

void start(CURLM* multi, Range& range) {
  const std::string text = std::to_string(range.begin) + "-" + std::to_string(range.end - 1);
  curl_easy_setopt(range.easy, CURLOPT_RANGE, text.c_str());
  curl_multi_add_handle(multi, range.easy);
}

/// Waits for the next transfer that ends and takes it out of the multi handle.
CURL* nextEnded(CURLM* multi, CURLcode& result) {
  for (;;) {
    int running = 0;
    int queued = 0;
    if (curl_multi_perform(multi, &running) != CURLM_OK) {
      fail("curl_multi_perform");
    }
    if (const CURLMsg* const message = curl_multi_info_read(multi, &queued)) {
      CURL* const easy = message->easy_handle;
      result = message->data.result;
      curl_multi_remove_handle(multi, easy);
      return easy;
    }
    curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
  }
}

std::uint64_t sizeOf(CURLM* multi, const char* url) {
  CURL* const easy = request(url);
  curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
  curl_multi_add_handle(multi, easy);
  CURLcode result = CURLE_OK;
  nextEnded(multi, result);
  curl_off_t size = -1;
  curl_easy_getinfo(easy, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &size);
  curl_easy_cleanup(easy);
  if (result != CURLE_OK || size < static_cast<curl_off_t>(kConnections)) {
    fail("no size");
  }
  return static_cast<std::uint64_t>(size);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fputs("usage: bare_loop URL FILE\n", stderr);
    return 2;
  }
  curl_global_init(CURL_GLOBAL_DEFAULT);
  CURLM* const multi = curl_multi_init();
  const std::uint64_t size = sizeOf(multi, argv[1]);
  const int file = open(argv[2], O_CREAT | O_TRUNC | O_WRONLY | O_CLOEXEC, 0600);
  if (file < 0 || ftruncate(file, static_cast<off_t>(size)) != 0) {
    fail("cannot create the file");
  }
  Range ranges[kConnections];
  for (std::uint64_t number = 0; number < kConnections; ++number) {
    Range& range = ranges[number];
    range = {request(argv[1]), file, size * number / kConnections, size * (number + 1) / kConnections};
    curl_easy_setopt(range.easy, CURLOPT_WRITEFUNCTION, store);
    curl_easy_setopt(range.easy, CURLOPT_WRITEDATA, &range);
    curl_easy_setopt(range.easy, CURLOPT_PRIVATE, &range);
    start(multi, range);
  }
  for (std::uint64_t missing = kConnections; missing > 0;) {
    CURLcode result = CURLE_OK;
    char* place = nullptr;
    curl_easy_getinfo(nextEnded(multi, result), CURLINFO_PRIVATE, &place);
    Range& range = *reinterpret_cast<Range*>(place);
    if (range.begin == range.end) {
      --missing;
    } else if (++range.tries < kMostTries) {
      start(multi, range);
    } else {
      fail(curl_easy_strerror(result));
    }
  }
  for (Range& range : ranges) {
    curl_easy_cleanup(range.easy);
  }
  curl_multi_cleanup(multi);
  return 0;
}

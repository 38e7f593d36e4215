// Downloads the files of a list, two at once, and pauses them when it is told to.
//
//   resume_list LIST
//
// LIST has a line "URL FILE" for each.  The lines that are done are remembered in LIST.done: another run downloads the
// rest.  Ctrl-C, or p and Enter, pauses everything; the same once more, and it goes on.  q and Enter ends the program;
// what was not whole by then begins anew in the next run.
//
// The exit code says the worst that happened: 0 all files are there, 3 it was ended before, 1 a download failed, 2
// there is no list.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstddef>
#include <exception>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <xfer/xfer.h>
#include <xfer/xfer.hpp>

namespace {

constexpr std::size_t kAtOnce = 2;

struct Entry {
  std::string line;
  std::string url;
  std::string path;
};

/// What the main thread is told by the others: the library's, which knows of the downloads, and the one that reads the
/// commands.
class Inbox {
 public:
  struct Mail {
    std::vector<std::pair<std::size_t, xfer::DownloadUpdate>> updates;  // with the number of their entry
    std::string commands;                                               // a letter each
  };

  void put(std::size_t entry, const xfer::DownloadUpdate& update) {
    const std::lock_guard lock(mutex_);
    mail_.updates.emplace_back(entry, update);
    changed_.notify_one();
  }

  void put(char command) {
    const std::lock_guard lock(mutex_);
    mail_.commands += command;
    changed_.notify_one();
  }

  /// Waits for mail, but not for long: a signal handler can put nothing in here.
  Mail take() {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, std::chrono::milliseconds(100),
                      [this] { return !mail_.updates.empty() || !mail_.commands.empty(); });
    return std::exchange(mail_, {});
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  Mail mail_;
};

std::atomic<bool> interrupted{false};

extern "C" void onInterrupt(int) {
  std::signal(SIGINT, onInterrupt);  // some systems call a handler once only
  interrupted = true;                // no function of the library may be called in here
}

/// Runs until the input ends, and may be waiting for a line still when the program ends: it is not waited for.
void readCommands(std::shared_ptr<Inbox> inbox) {
  std::thread([inbox = std::move(inbox)] {
    std::string line;
    while (std::getline(std::cin, line)) {
      if (!line.empty()) inbox->put(line.front());
    }
  }).detach();
}

class List {
 public:
  List(std::vector<Entry> entries, const std::string& donePath, std::shared_ptr<Inbox> inbox)
      : entries_(std::move(entries)), inbox_(std::move(inbox)), donePath_(donePath) {
    std::ifstream done(donePath_);
    for (std::string line; std::getline(done, line);) done_.insert(line);
  }

  int downloadAll() {
    startMore();
    while (!running_.empty() || (next_ < entries_.size() && !ending_)) {
      const Inbox::Mail mail = inbox_->take();
      for (const auto& [number, update] : mail.updates) hear(number, update);
      for (const char command : mail.commands) obey(command);
      if (interrupted.exchange(false)) obey('p');
      startMore();
    }
    if (anyFailed_) return 1;
    return ending_ ? 3 : 0;
  }

 private:
  void startMore() {
    while (running_.size() < kAtOnce && next_ < entries_.size() && !paused_ && !ending_) {
      const std::size_t number = next_++;
      const Entry& entry = entries_[number];
      if (done_.count(entry.line) != 0 && std::ifstream(entry.path)) {
        std::cout << entry.path << ": done before" << std::endl;
        continue;
      }
      start(number);
    }
  }

  void start(std::size_t number) {
    xfer::DownloadRequest request;
    request.url = entries_[number].url;
    request.path = entries_[number].path;
    xfer::DownloadPolicy policy;
    policy.numThreads = 4;
    xfer::DownloadOptions options;
    options.setVerifyPeer(true).setPlan(xfer::DownloadPlan::Adaptive);
    // Called on a thread of the library.  All that it does is to pass on what it hears.
    options.setOnUpdate([inbox = inbox_, number](const xfer::DownloadUpdate& update) { inbox->put(number, update); });
    running_.emplace(number, xfer::DownloadJob(request, policy, options)).first->second.start();
  }

  void hear(std::size_t number, const xfer::DownloadUpdate& update) {
    const Entry& entry = entries_[number];
    if (update.kind == xfer::DownloadUpdate::Kind::State) {
      if (update.state == xfer::JobState::Running) std::cout << entry.path << ": running" << std::endl;
      if (update.state == xfer::JobState::Paused) std::cout << entry.path << ": paused" << std::endl;
    }
    if (update.kind != xfer::DownloadUpdate::Kind::End) return;

    running_.erase(number);
    std::cout << entry.path << ": ";
    if (update.state == xfer::JobState::Completed) {
      std::ofstream(donePath_, std::ios::app) << entry.line << '\n';
      std::cout << "completed, " << update.snapshot.bytesDone << " bytes" << std::endl;
    } else if (update.state == xfer::JobState::Cancelled) {
      std::cout << "cancelled" << std::endl;
    } else {
      anyFailed_ = true;
      // An error page has both numbers, and its HTTP status is the one that says why.
      const xfer::DownloadSnapshot& end = update.snapshot;
      std::cout << xfer_errorText(end.httpStatus >= 400 ? end.httpStatus : end.errorCode) << std::endl;
    }
  }

  void obey(char command) {
    if (command == 'p') {
      paused_ = !paused_;
      std::cout << (paused_ ? "pauses" : "goes on") << std::endl;
      for (auto& [number, job] : running_) paused_ ? job.pause() : job.resume();
    }
    if (command == 'q') {
      ending_ = true;
      for (auto& [number, job] : running_) job.cancel();
    }
  }

  const std::vector<Entry> entries_;
  const std::shared_ptr<Inbox> inbox_;
  const std::string donePath_;
  std::set<std::string> done_;  // lines
  std::size_t next_ = 0;        // the first entry that was not started
  std::map<std::size_t, xfer::DownloadJob> running_;
  bool paused_ = false;
  bool ending_ = false;
  bool anyFailed_ = false;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: resume_list LIST\n";
    return 2;
  }
  // The thread that waits for a line holds nothing that the program's end needs, and leaves the output alone.
  std::ios::sync_with_stdio(false);
  std::cin.tie(nullptr);
  std::ifstream file(argv[1]);
  std::vector<Entry> entries;
  for (std::string line; std::getline(file, line);) {
    const std::size_t space = line.find(' ');
    if (space != std::string::npos) entries.push_back({line, line.substr(0, space), line.substr(space + 1)});
  }
  if (entries.empty()) {
    std::cerr << argv[1] << " has no lines \"URL FILE\"\n";
    return 2;
  }
  try {
    const auto inbox = std::make_shared<Inbox>();
    std::signal(SIGINT, onInterrupt);
    readCommands(inbox);
    return List(std::move(entries), std::string(argv[1]) + ".done", inbox).downloadAll();
  } catch (const std::exception& e) {  // out of memory or threads
    std::cerr << e.what() << '\n';
    return 1;
  }
}

// Who tells of downloads: on a terminal, in lines of a log, or in JSON.
//
// Threads: one.
// Units:   bytes, seconds.
#pragma once

#include <cstdint>
#include <vector>

#include "download.h"

namespace xfer_get {

struct Tally {
  unsigned all = 0;
  unsigned done = 0;
  unsigned failed = 0;
  unsigned running = 0;
  std::uint64_t bytes = 0;  ///< of those that are done
  double seconds = 0;       ///< since the first one began
};

class Report {
 public:
  Report() = default;
  virtual ~Report() = default;
  Report(const Report&) = delete;
  Report& operator=(const Report&) = delete;

  virtual void begun(const Download& download) = 0;

  /// After each of its steps.
  virtual void stepped(const Download& download) = 0;

  virtual void ended(const Download& download) = 0;

  /// Often; shows as much of it as is good for whoever reads it.
  virtual void show(const std::vector<const Download*>& running, const Tally& tally) = 0;

  /// When no download runs any more.
  virtual void over(const Tally& tally) = 0;

  /// False: nobody can be told any more, and the downloads are to end.
  [[nodiscard]] virtual bool isGood() const = 0;
};

}  // namespace xfer_get

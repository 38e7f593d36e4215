// Tells programs on standard output: one JSON object a line, see json_lines.h.
//
// Threads: one.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "report.h"

namespace xfer_get {

class JsonReport : public Report {
 public:
  void begun(const Download& download) override;
  void stepped(const Download& download) override;
  void ended(const Download& download) override;
  void show(const std::vector<const Download*>& running, const Tally& tally) override;
  void over(const Tally& tally) override;
  [[nodiscard]] bool isGood() const override { return good_; }

 private:
  using Clock = std::chrono::steady_clock;

  void print(const std::string& line);

  Clock::time_point next_ = Clock::now();
  bool good_ = true;
};

}  // namespace xfer_get

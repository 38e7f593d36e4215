// Tells people on standard error: redraws lines on a terminal; prints a line every few seconds elsewhere, and where a
// log is written too.  One download has a progress line, a map of its file, and a line for each connection; several
// have a line each, and one for all.
//
// Threads: one.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include "live_lines.h"
#include "options.h"
#include "report.h"

namespace xfer_get {

class TextReport : public Report {
 public:
  /// all: downloads there will be.
  TextReport(const Options& options, std::size_t all);

  void begun(const Download& download) override;
  void stepped(const Download& download) override;
  void ended(const Download& download) override;
  void show(const std::vector<const Download*>& running, const Tally& tally) override;
  void over(const Tally& tally) override;
  [[nodiscard]] bool isGood() const override { return true; }

 private:
  using Clock = std::chrono::steady_clock;

  void write(const std::string& text);
  void tell(const std::string& text);
  void drawLast(const Download& download);
  void draw(const std::vector<const Download*>& running, const Tally& tally);
  void printLine(const std::vector<const Download*>& running, const Tally& tally);

  const Options& options_;
  const bool one_;  // download
  const bool colours_;
  LiveLines live_;
  bool drawn_ = false;  // on the terminal now
  Clock::time_point nextDrawing_ = Clock::now();
  Clock::time_point nextLine_ = Clock::now() + std::chrono::seconds(1);  // the speed is unknown before
};

}  // namespace xfer_get

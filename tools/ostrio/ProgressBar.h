#pragma once
// ProgressBar: a download's bytes, rate and ETA on stderr when it is a terminal; silent otherwise
// (logs and pipes get no carriage-return noise). Update may be called from any thread.

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>

namespace ostrio {

class ProgressBar {
 public:
  // enabled: draw at all (the caller decides: a terminal, and not --json).
  explicit ProgressBar(bool enabled);
  ~ProgressBar();

  // bytes: how far the file is; total: its full size (0 when unknown).
  void Update(std::uint64_t bytes, std::uint64_t total);
  // Draws the last state and ends the line.
  void Finish();

  // One line: percent and bar when the total is known, bytes, rate (bytes a second), ETA.
  static std::string Render(std::uint64_t bytes, std::uint64_t total, double rate, std::size_t width);
  static std::string Bytes(double bytes);

 private:
  using Clock = std::chrono::steady_clock;
  void Draw(bool final);

  const bool enabled_;
  std::mutex mutex_;
  Clock::time_point start_;
  Clock::time_point lastDraw_;
  std::uint64_t startBytes_ = 0;
  bool started_ = false;
  bool drawn_ = false;
  bool finished_ = false;
  std::uint64_t bytes_ = 0;
  std::uint64_t total_ = 0;
};

}  // namespace ostrio

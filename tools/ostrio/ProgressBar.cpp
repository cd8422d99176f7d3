#include "ProgressBar.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace ostrio {
namespace {

// Ten redraws a second are smooth to the eye and cost nothing next to the transfer.
constexpr std::chrono::milliseconds kRedrawInterval{100};

std::size_t TerminalWidth() {
  winsize size{};
  if (::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col >= 40) return size.ws_col;
  return 80;
}

std::string Duration(double seconds) {
  if (!std::isfinite(seconds) || seconds < 0 || seconds > 359999) return "--:--";
  const auto s = static_cast<long>(seconds + 0.5);
  char text[32];
  if (s >= 3600) {
    std::snprintf(text, sizeof text, "%ld:%02ld:%02ld", s / 3600, (s / 60) % 60, s % 60);
  } else {
    std::snprintf(text, sizeof text, "%ld:%02ld", s / 60, s % 60);
  }
  return text;
}

}  // namespace

ProgressBar::ProgressBar(bool enabled) : enabled_(enabled) {}

ProgressBar::~ProgressBar() { Finish(); }

std::string ProgressBar::Bytes(double bytes) {
  static const char* const kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB"};
  int unit = 0;
  while (bytes >= 1024 && unit < 4) {
    bytes /= 1024;
    ++unit;
  }
  char text[32];
  std::snprintf(text, sizeof text, unit == 0 ? "%.0f %s" : "%.1f %s", bytes, kUnits[unit]);
  return text;
}

std::string ProgressBar::Render(std::uint64_t bytes, std::uint64_t total, double rate, std::size_t width) {
  std::string tail = Bytes(static_cast<double>(bytes));
  if (total > 0) tail += " / " + Bytes(static_cast<double>(total));
  tail += "  " + Bytes(rate) + "/s";
  if (total > 0) {
    const double left = bytes >= total ? 0 : (rate > 0 ? static_cast<double>(total - bytes) / rate : -1);
    tail += "  ETA " + Duration(left);
  }
  if (total == 0) return tail;
  const double fraction = std::min(1.0, static_cast<double>(bytes) / static_cast<double>(total));
  char percent[8];
  std::snprintf(percent, sizeof percent, "%3d%% ", static_cast<int>(fraction * 100));
  const std::size_t used = std::string(percent).size() + 3 + tail.size();
  const std::size_t barWidth = width > used + 11 ? std::min<std::size_t>(width - used - 1, 40) : 10;
  const auto filled = static_cast<std::size_t>(fraction * static_cast<double>(barWidth));
  return std::string(percent) + "[" + std::string(filled, '#') + std::string(barWidth - filled, '.') + "] " + tail;
}

void ProgressBar::Update(std::uint64_t bytes, std::uint64_t total) {
  if (!enabled_) return;
  std::lock_guard lock(mutex_);
  if (finished_) return;
  const auto now = Clock::now();
  if (!started_) {
    started_ = true;
    start_ = now;
    // A resumed download starts part-way: the rate counts only what this run fetched.
    startBytes_ = bytes;
  }
  bytes_ = std::max(bytes_, bytes);
  total_ = total;
  if (!drawn_ || now - lastDraw_ >= kRedrawInterval) {
    lastDraw_ = now;
    Draw(false);
  }
}

void ProgressBar::Finish() {
  if (!enabled_) return;
  std::lock_guard lock(mutex_);
  if (finished_ || !started_) return;
  finished_ = true;
  Draw(true);
}

void ProgressBar::Draw(bool final) {
  const double seconds = std::chrono::duration<double>(Clock::now() - start_).count();
  const std::size_t width = TerminalWidth();
  const double rate = seconds > 0 ? static_cast<double>(bytes_ - startBytes_) / seconds : 0;
  std::string line = Render(bytes_, total_, rate, width);
  if (line.size() + 1 > width) line.resize(width - 1);
  std::fprintf(stderr, "\r%s\033[K%s", line.c_str(), final ? "\n" : "");
  std::fflush(stderr);
  drawn_ = true;
}

}  // namespace ostrio

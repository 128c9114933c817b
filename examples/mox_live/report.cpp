#include "mox_live/report.h"

#include <algorithm>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <utility>

namespace mox_live {

void Report::Say(const std::string& text) const {
  const std::chrono::duration<double> since = std::chrono::steady_clock::now() - begin_;
  std::ostringstream line;
  line << std::fixed << std::setprecision(3) << std::setw(8) << since.count() << " s  " << text << '\n';
  std::cout << line.str() << std::flush;
}

void Report::Time(const std::string& label, const std::function<void()>& change,
                  const std::function<std::string()>& result) {
  const auto begin = std::chrono::steady_clock::now();
  change();
  const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - begin;
  changes_.push_back({label, took.count()});
  std::ostringstream text;
  text << label << ": " << std::fixed << std::setprecision(1) << took.count() << " ms";
  if (result) {
    text << ", now " << result();
  }
  Say(text.str());
}

void Report::Add(const std::string& label, std::unique_ptr<FrameCounter> frames) {
  counted_.push_back({label, std::move(frames)});
}

std::string Report::GetFrames(const std::string& label) const {
  const auto counted =
      std::find_if(counted_.rbegin(), counted_.rend(), [&](const Counted& one) { return one.label == label; });
  const Frames frames = counted != counted_.rend() ? counted->frames->Get() : Frames();
  return std::to_string(frames.seen) + " frames, " + std::to_string(frames.lost) + " lost, " +
         std::to_string(frames.repeated) + " repeated";
}

void Report::Write(std::ostream& stream) const {
  std::ostringstream table;  // written at once, because the bus reader writes lines too
  table << '\n' << std::left << std::setw(32) << "change" << std::right << std::setw(10) << "ms" << '\n';
  for (const auto& change : changes_) {
    table << std::left << std::setw(32) << change.label << std::right << std::setw(10) << std::fixed
          << std::setprecision(1) << change.milliseconds << '\n';
  }
  table << '\n'
        << std::left << std::setw(32) << "frames" << std::right << std::setw(10) << "seen" << std::setw(10) << "lost"
        << std::setw(10) << "repeated" << '\n';
  for (const auto& [label, counter] : counted_) {
    const Frames frames = counter->Get();
    table << std::left << std::setw(32) << label << std::right << std::setw(10) << frames.seen << std::setw(10)
          << frames.lost << std::setw(10) << frames.repeated << '\n';
  }
  stream << table.str() << std::flush;
}

}  // namespace mox_live

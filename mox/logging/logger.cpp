#include "mox/logging/logger.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>
#include <system_error>

namespace mox::logging {
namespace {

const char* GetText(Level level) noexcept {
  switch (level) {
    case Level::Trace:
      return "trace";
    case Level::Debug:
      return "debug";
    case Level::Info:
      return "info";
    case Level::Warning:
      return "warning";
    case Level::Error:
      return "error";
    case Level::None:
      break;
  }
  return "none";
}

// Returns the value of the lowest level that is written.
unsigned ReadThreshold() noexcept {
  const char* const variable = std::getenv("MOX_LOG_LEVEL");
  const std::string_view name = variable == nullptr ? "" : variable;
  if (name == "all") {
    return 0;
  }
  if (name == "none") {
    return std::numeric_limits<unsigned>::max();
  }
  for (const Level level : {Level::Trace, Level::Debug, Level::Warning, Level::Error}) {
    if (name == GetText(level)) {
      return static_cast<unsigned>(level);
    }
  }
  return static_cast<unsigned>(Level::Info);
}

void AppendTime(std::string* out) {
  const auto now = std::chrono::system_clock::now();
  const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  const auto microseconds =
      std::chrono::duration_cast<std::chrono::microseconds>(now.time_since_epoch()) % std::chrono::seconds(1);
  std::tm date;
  gmtime_r(&seconds, &date);
  std::array<char, 64> text;
  std::size_t length = std::strftime(text.data(), text.size(), "%FT%T", &date);
  length += static_cast<std::size_t>(
      std::snprintf(text.data() + length, text.size() - length, ".%06dZ", static_cast<int>(microseconds.count())));
  out->append(text.data(), length);
}

void AppendMessage(std::string* out, const char* format, const std::function<void(std::string*)>* arguments,
                   unsigned long count) {
  const char* const end = format + std::strlen(format);
  while (true) {
    const char* const percent = std::find(format, end, '%');
    out->append(format, percent);
    if (percent == end) {
      return;
    }
    unsigned long index = 0;
    const auto [next, error] = std::from_chars(percent + 1, end, index);
    if (error == std::errc() && next != end && *next == '%' && index < count) {
      arguments[index](out);
      format = next + 1;
    } else {
      out->push_back('%');
      format = percent + 1;
    }
  }
}

}  // namespace

Logger::Logger(const Name& name) : name_(name) {}  // NOLINT(modernize-pass-by-value): fixed interface

Logger::~Logger() = default;

const Name& Logger::GetName() const noexcept {
  return name_;
}

bool Logger::Filter(const Name& /*name*/, Level level) const noexcept {
  static const unsigned threshold = ReadThreshold();
  return static_cast<unsigned>(level) >= threshold;
}

void Logger::Format(std::string* out, const Name& name, Level level, const char* format,
                    const std::function<void(std::string*)>* arguments, unsigned long count) const noexcept {
  try {
    AppendTime(out);
    out->append(" ").append(GetText(level)).append(" ").append(name.Get()).append(": ");
    AppendMessage(out, format, arguments, count);
  } catch (...) {  // no memory for the rest of the line
  }
  std::replace_if(
      out->begin(), out->end(), [](char character) { return character == '\n' || character == '\r'; }, ' ');
}

void Logger::Output(std::unique_ptr<std::string> text, bool urgent) const noexcept {
  try {
    text->push_back('\n');
  } catch (...) {
    text->back() = '\n';  // no memory for another character
  }
  // One call, so that the lines of several threads do not mix.
  std::fwrite(text->data(), 1, text->size(), stderr);
  if (urgent) {
    std::fflush(stderr);  // the program may have given stderr a buffer
  }
}

}  // namespace mox::logging

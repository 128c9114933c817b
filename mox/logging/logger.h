#ifndef MOX_LOGGING_LOGGER_H
#define MOX_LOGGING_LOGGER_H

#include "mox/export.h"
#include "mox/logging/level.h"
#include "mox/logging/name.h"

#include <array>
#include <functional>
#include <iterator>
#include <limits>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>

namespace mox::logging {

/**
 * A named source of log records. Each source file that logs has one.
 *
 * Records are lines on standard error: time (UTC), level, logger name and message. The environment
 * variable MOX_LOG_LEVEL, read at the first record, is the lowest level written: "trace", "debug",
 * "info", "warning" or "error". An unset or unknown value means "info". "none" writes nothing,
 * "all" writes records of `Level::None` too.
 *
 * Several threads may use a logger at once.
 */
class MOX_EXPORT Logger {
 public:
  /**
   * Appends the text of one argument of a record. Borrows the argument until the record is written.
   */
  template <typename Argument>
  class Functor;

  /** Creates a logger. Its records have its name. */
  explicit Logger(const Name& name);
  ~Logger();
  Logger(const Logger&) = delete;
  Logger& operator=(const Logger&) = delete;

  /**
   * Writes a record. Its message is `format` with each placeholder, "%0%", "%1%" and so on,
   * replaced by the argument of that index. Arguments are C strings (not null), `std::string` and
   * `int` variables. They are rendered only if the record is written.
   *
   * @throws std::bad_alloc if there is no memory for the record
   */
  template <typename... Args>
  void Log(Level level, const char* format, Args&&... args) const;

  /** Returns the name given at construction. */
  [[nodiscard]] const Name& GetName() const noexcept;

  /** Returns true if records of that level are written for that logger name. */
  [[nodiscard]] bool Filter(const Name& name, Level level) const noexcept;

  /**
   * Builds the text of a record in the empty string `out`. Keeps a percent sign that starts no
   * placeholder and a placeholder without an argument. Replaces a line break in the message by a
   * blank.
   */
  void Format(std::string* out, const Name& name, Level level, const char* format,
              const std::function<void(std::string*)>* arguments, unsigned long count) const noexcept;

  /** Writes the text of a record as one line. Flushes the stream if the record is urgent. */
  void Output(std::unique_ptr<std::string> text, bool urgent) const noexcept;

 private:
  Name name_;
};

template <typename Argument>
class Logger::Functor {
  using Value = std::remove_cv_t<std::remove_reference_t<Argument>>;
  static_assert(std::is_same_v<Value, int> || std::is_same_v<Value, std::string> ||
                    std::is_convertible_v<Argument, const char*>,
                "A record has no arguments of this type");
  static_assert(std::is_reference_v<Argument> || std::is_pointer_v<Argument>,
                "Pass a variable, because the record borrows its arguments");

 public:
  /** Borrows the argument. */
  explicit Functor(Argument argument) noexcept : argument_(argument) {}

  /** Appends the text of the argument to `out`. */
  void operator()(std::string* out) const { Append(out, argument_); }

 private:
  static void Append(std::string* out, const char* text) { out->append(text); }
  static void Append(std::string* out, const std::string& text) { out->append(text); }

  static void Append(std::string* out, int value) {
    std::array<char, std::numeric_limits<int>::digits10 + 2> text;  // the digit beyond digits10, and the sign
    auto first = text.end();
    int rest = value;
    do {
      // The remainder has the sign of the value. Negating the value first would overflow for the
      // lowest one.
      *--first = "9876543210123456789"[9 + rest % 10];
      rest /= 10;
    } while (rest != 0);
    if (value < 0) {
      *--first = '-';
    }
    out->append(first, text.end());
  }

  Argument argument_;
};

template <typename... Args>
void Logger::Log(Level level, const char* format, Args&&... args) const {
  if (!Filter(GetName(), level)) {
    return;
  }
  auto text = std::make_unique<std::string>();
  const std::array<std::function<void(std::string*)>, sizeof...(Args)> arguments{
      Functor<Args>(std::forward<Args>(args))...};
  Format(text.get(), GetName(), level, format, sizeof...(Args) == 0 ? nullptr : arguments.data(), arguments.size());
  Output(std::move(text), static_cast<unsigned>(level) > 15U);
}

}  // namespace mox::logging

#endif

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
 * A named source of log records, one per source file that logs.
 *
 * Records go to standard error, a line each: time (UTC), level, logger name and message. The environment variable
 * MOX_LOG_LEVEL, read at the first record, is the lowest level written: "trace", "debug", "info" (also when unset or
 * unknown), "warning" or "error"; "none" writes nothing, "all" writes records of `Level::None` as well.
 *
 * All operations may be called from any thread, several at once.
 */
class MOX_EXPORT Logger {
 public:
  /** Appends the text of one argument of a record, borrowed until the record is written, to a string. */
  template <typename Argument>
  class Functor;

  /** Makes a logger; records bear its name. */
  explicit Logger(const Name& name);
  ~Logger();
  Logger(const Logger&) = delete;
  Logger& operator=(const Logger&) = delete;

  /**
   * Writes a record whose message is @p format with each placeholder, "%0%", "%1%" and so on, replaced by the argument
   * of that index. Arguments are C strings (not null), `std::string` and `int` variables; they are rendered only if
   * the record is written.
   *
   * @throw std::bad_alloc where there is no memory for the record
   */
  template <typename... Args>
  void Log(Level level, const char* format, Args&&... args) const;

  /** The name given at construction. */
  [[nodiscard]] const Name& GetName() const noexcept;

  /** Whether records at @p level of the logger called @p name are written. */
  [[nodiscard]] bool Filter(const Name& name, Level level) const noexcept;

  /**
   * Builds the text of a record in the empty string @p out. A percent sign that starts no placeholder and a placeholder
   * without an argument stay as they stand; a line break in the message becomes a blank.
   */
  void Format(std::string* out, const Name& name, Level level, const char* format,
              const std::function<void(std::string*)>* arguments, unsigned long count) const noexcept;

  /** Writes the text of a record as one line and, where it is @p urgent, does not leave it in a buffer. */
  void Output(std::unique_ptr<std::string> text, bool urgent) const noexcept;

 private:
  Name name_;
};

template <typename Argument>
class Logger::Functor {
  using Value = std::remove_cv_t<std::remove_reference_t<Argument>>;
  static_assert(std::is_same_v<Value, int> || std::is_same_v<Value, std::string> ||
                    std::is_convertible_v<Argument, const char*>,
                "Not a kind of argument that a record takes");
  static_assert(std::is_reference_v<Argument> || std::is_pointer_v<Argument>, "The argument would have to be copied");

 public:
  /** Borrows the argument. */
  explicit Functor(Argument argument) noexcept : argument_(argument) {}

  /** Appends the text of the argument to @p out. */
  void operator()(std::string* out) const { Append(out, argument_); }

 private:
  static void Append(std::string* out, const char* text) { out->append(text); }
  static void Append(std::string* out, const std::string& text) { out->append(text); }

  static void Append(std::string* out, int value) {
    std::array<char, std::numeric_limits<int>::digits10 + 2> text;  // one digit more than digits10, and the sign
    auto first = text.end();
    int rest = value;
    do {
      // A remainder has the sign of the value: the most negative one could not be made positive.
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

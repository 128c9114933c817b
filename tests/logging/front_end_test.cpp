#include "mox/logging/logger.h"

#include <cstdlib>
#include <limits>
#include <new>
#include <sstream>

#include <gtest/gtest.h>

namespace {

std::size_t allocations = 0;
bool accept = true;
std::ostringstream calls;

}  // namespace

// Not inlined: the compiler would see an allocation function and `free`, and take them for a mismatch.
__attribute__((noinline)) void* operator new(std::size_t size) {
  ++allocations;
  if (void* const memory = std::malloc(size)) {
    return memory;
  }
  throw std::bad_alloc();
}
__attribute__((noinline)) void operator delete(void* memory) noexcept {
  std::free(memory);
}
__attribute__((noinline)) void operator delete(void* memory, std::size_t /*size*/) noexcept {
  std::free(memory);
}

namespace mox::logging {

// The library below the front end: it notes what it is asked, and renders the arguments last first.

Name::Name(const char* name) : name_(name) {}
const std::string& Name::Get() const noexcept {
  return name_;
}
Logger::Logger(const Name& name) : name_(name) {}
Logger::~Logger() = default;

const Name& Logger::GetName() const noexcept {
  if (accept) {
    calls << "name ";
  }
  return name_;
}

bool Logger::Filter(const Name& /*name*/, Level /*level*/) const noexcept {
  return accept;
}

void Logger::Format(std::string* out, const Name& name, Level level, const char* format,
                    const std::function<void(std::string*)>* arguments, unsigned long count) const noexcept {
  calls << "format[" << *out << "] " << name.Get() << ' ' << static_cast<int>(level) << ' ' << format << ' '
        << (arguments == nullptr ? "null " : "") << count << ' ';
  const std::size_t before = allocations;
  out->reserve(256);
  while (count > 0) {
    arguments[--count](&out->append("|"));
  }
  EXPECT_EQ(allocations, before + 1) << "Rendering allocates";
}

void Logger::Output(std::unique_ptr<std::string> text, bool urgent) const noexcept {
  calls << "output " << *text << (urgent ? " urgent" : "");
}

namespace {

using namespace std::string_literals;

template <typename... Args>
std::string Record(Level level, const char* format, Args&&... args) {
  calls.str("");
  Logger(Name("mox.test")).Log(level, format, std::forward<Args>(args)...);
  return calls.str();
}

TEST(FrontEnd, AsksForNameFilterNameFormatAndOutput) {
  EXPECT_EQ(Record(Level::Warning, "text"), "name name format[] mox.test 8 text null 0 output ");
  EXPECT_EQ(Record(Level::Error, "text"), "name name format[] mox.test 16 text null 0 output  urgent");

  std::string bytes("a\0b", 3);
  int zero = 0;
  const char* text = "text";
  const char* const constant = "constant";
  EXPECT_EQ(Record(Level::None, "%", text, zero, constant, bytes, static_cast<const char*>("temporary"), "literal"),
            "name name format[] mox.test 0 % 6 output |literal|temporary|a\0b|constant|0|text"s);
  for (int number : {9, -10, std::numeric_limits<int>::max(), std::numeric_limits<int>::min()}) {
    EXPECT_EQ(Record(Level::Info, "%", number), "name name format[] mox.test 4 % 1 output |" + std::to_string(number));
  }
  using Functor = Logger::Functor<std::string&>;
  static_assert(std::is_trivially_copyable_v<Functor> && sizeof(Functor) == sizeof(void*), "std::function allocates");

  calls.str("");
  accept = false;
  const std::size_t before = allocations;
  Logger(Name("refuses")).Log(Level::Error, "%0% %1%", bytes, zero);
  EXPECT_EQ(allocations, before);
  EXPECT_EQ(calls.str(), "");
}

}  // namespace
}  // namespace mox::logging

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

template <typename... Args>
std::string Record(Level level, const char* format, Args&&... args) {
  calls.str("");
  Logger(Name("mox.test")).Log(level, format, std::forward<Args>(args)...);
  return calls.str();
}

template <typename Argument>
std::string Render(Argument argument) {
  using Functor = Logger::Functor<Argument>;
  static_assert(std::is_trivially_copyable_v<Functor> && sizeof(Functor) == sizeof(void*));
  std::string text = "<";
  Functor(static_cast<Argument>(argument))(&text);
  return text;
}

TEST(FrontEnd, AsksForNameFilterNameFormatAndOutput) {
  static_assert(noexcept(std::declval<Logger&>().GetName())&& noexcept(std::declval<Logger&>().Filter(
      std::declval<Name&>(),
      Level::Info))&& noexcept(std::declval<Logger&>().Format(nullptr, std::declval<Name&>(), Level::Info, "", nullptr,
                                                              0))&& noexcept(std::declval<Logger&>().Output(nullptr,
                                                                                                            false)));
  EXPECT_EQ(Record(Level::Info, "text"), "name name format[] mox.test 4 text null 0 output ");
  EXPECT_EQ(Record(Level::Warning, "text"), "name name format[] mox.test 8 text null 0 output ");
  EXPECT_EQ(Record(Level::Error, "text"), "name name format[] mox.test 16 text null 0 output  urgent");

  const char* file = "file.c";
  int line = 7;
  std::string type = "Type";
  const char* const text = "message";
  EXPECT_EQ(Record(Level::None, "five", file, line, file, type, text),
            "name name format[] mox.test 0 five 5 output |message|Type|file.c|7|file.c");
}

TEST(FrontEnd, RefusedRecordAllocatesAndRendersNothing) {
  const Logger logger(Name("mox.test"));
  std::string text(100, 'x');
  int number = 1;
  accept = false;
  std::size_t before = allocations;
  logger.Log(Level::Error, "%0% %1%", text, number);
  EXPECT_EQ(allocations, before);
  EXPECT_EQ(calls.str(), "");
  accept = true;
  before = allocations;
  logger.Log(Level::Error, "%0% %1%", text, number);
  EXPECT_GT(allocations, before);
}

TEST(FrontEnd, RendersEachKindOfArgument) {
  const char* text = "text";
  const char* const constant = "constant";
  std::string bytes("a\0b", 3);
  EXPECT_EQ(Render<const char*>("temporary"), "<temporary");
  EXPECT_EQ(Render<const char*&>(text), "<text");
  EXPECT_EQ(Render<const char* const&>(constant), "<constant");
  EXPECT_EQ(Render<const char(&)[8]>("literal"), "<literal");
  EXPECT_EQ(Render<std::string&>(bytes), std::string("<a\0b", 4));

  for (int number : {0, 9, 10, -7, -10, std::numeric_limits<int>::max(), std::numeric_limits<int>::min()}) {
    EXPECT_EQ(Render<int&>(number), "<" + std::to_string(number));
  }
}

}  // namespace
}  // namespace mox::logging

#ifndef TESTS_GSTREAMER_CALLS_H
#define TESTS_GSTREAMER_CALLS_H

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <stdexcept>
#include <string>

#include <dlfcn.h>
#include <link.h>

// Counts the calls that one shared library makes to functions of others.
namespace calls {

constexpr std::size_t kMost = 256;
extern "C" std::array<std::atomic<std::uint64_t>, kMost> calls_counts;
extern "C" std::array<void*, kMost> calls_functions;
extern "C" char calls_stubs;

// Each stub counts and goes on to its function, with whatever arguments.
asm(R"(
  .pushsection .text
  .balign 16
calls_stubs:
  .set number, 0
  .rept 256
  .balign 16
  lock incq calls_counts + 8 * number(%rip)
  jmp *calls_functions + 8 * number(%rip)
  .set number, number + 1
  .endr
  .popsection
)");

/** How often which function was called. */
using Counts = std::map<std::string, std::uint64_t>;

/** Counts from now on the calls of a loaded library to functions whose names start so. One in a process. */
class Counter {
 public:
  Counter(const char* library, const std::string& prefix) {
    auto* const map = static_cast<link_map*>(dlopen(library, RTLD_LAZY | RTLD_NOLOAD));
    if (map == nullptr) {
      throw std::runtime_error(dlerror());
    }
    std::map<ElfW(Sxword), ElfW(Addr)> dynamic;
    for (const ElfW(Dyn)* entry = map->l_ld; entry->d_tag != DT_NULL; ++entry) {
      dynamic[entry->d_tag] = entry->d_un.d_ptr;
    }
    const auto* const symbols = reinterpret_cast<const ElfW(Sym)*>(dynamic[DT_SYMTAB]);
    const auto* const names = reinterpret_cast<const char*>(dynamic[DT_STRTAB]);
    const auto* const slots = reinterpret_cast<const ElfW(Rela)*>(dynamic[DT_JMPREL]);
    for (std::size_t i = 0; i < dynamic[DT_PLTRELSZ] / sizeof(*slots); ++i) {
      const std::string name = names + symbols[ELF64_R_SYM(slots[i].r_info)].st_name;
      if (name.compare(0, prefix.size(), prefix) == 0) {
        const std::size_t number = numbers_.size();
        calls_functions.at(number) = dlsym(RTLD_DEFAULT, name.c_str());
        *reinterpret_cast<void**>(map->l_addr + slots[i].r_offset) = &calls_stubs + 16 * number;
        numbers_[name] = number;
      }
    }
  }

  /** The functions called since it was last asked, and how often. */
  Counts Take() {
    Counts taken;
    for (const auto& [name, number] : numbers_) {
      if (const auto count = calls_counts[number].exchange(0); count > 0) {
        taken[name] = count;
      }
    }
    return taken;
  }

 private:
  std::map<std::string, std::size_t> numbers_;
};

std::array<std::atomic<std::uint64_t>, kMost> calls_counts;
std::array<void*, kMost> calls_functions;

}  // namespace calls

#endif

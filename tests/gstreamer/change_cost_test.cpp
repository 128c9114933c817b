#include "mox/export.h"
#include "tests/gstreamer/live.h"

#include <array>
#include <map>

#include <dlfcn.h>
#include <link.h>

extern "C" {
std::atomic<std::size_t> allocations, calls;
std::array<void*, 256> called_functions;
extern char call_stubs;

// In the place of the C library's own, for all that is loaded. What is cleared or grows is not counted.
void* __libc_malloc(std::size_t size);
MOX_EXPORT void* malloc(std::size_t size) {
  ++allocations;
  return __libc_malloc(size);
}
}

// Each stub counts and goes on to its function, with whatever arguments.
asm(R"(
  .set number, 0
  .balign 16
call_stubs:
  .rept 256
  .balign 16
  lock incq calls(%rip)
  jmp *called_functions + 8 * number(%rip)
  .set number, number + 1
  .endr)");

namespace live {

using ChangeCost = live::Test;

// Has the calls counted that the library makes to GStreamer, to functions whose address it does not take.
static void CountCalls() {
  const auto* const map = static_cast<link_map*>(dlopen("libmox_integration_gstreamer.so.1", RTLD_LAZY | RTLD_NOLOAD));
  std::map<ElfW(Sxword), ElfW(Addr)> dynamic;
  for (const ElfW(Dyn)* entry = map->l_ld; entry->d_tag != DT_NULL; ++entry) {
    dynamic[entry->d_tag] = entry->d_un.d_ptr;
  }
  const auto* const symbols = reinterpret_cast<const ElfW(Sym)*>(dynamic[DT_SYMTAB]);
  const auto* slot = reinterpret_cast<const ElfW(Rela)*>(dynamic[DT_JMPREL]);
  std::size_t number = 0;
  for (auto left = dynamic[DT_PLTRELSZ] / sizeof(*slot); left > 0; --left, ++slot) {
    const std::string name =
        reinterpret_cast<const char*>(dynamic[DT_STRTAB]) + symbols[ELF64_R_SYM(slot->r_info)].st_name;
    // The reader looks at the bus twice a second.
    if (name.rfind("gst_", 0) == 0 && name != "gst_bus_timed_pop_filtered") {
      called_functions.at(number) = dlsym(RTLD_DEFAULT, name.c_str());
      *reinterpret_cast<void**>(map->l_addr + slot->r_offset) = &call_stubs + 16 * number++;
    }
  }
}

// Numbers to be lowered with what they count. They are the same in every build: all that is counted is GStreamer's,
// GLib's and the library's, for an added and an erased filter, the two frames that they hold and that come out at the
// end, and the next.
TEST_F(ChangeCost, DoesNotGrow) {
  CountCalls();
  std::atomic<std::size_t> made = 0;
  Stream stream(MakeSource(), {Make("identity")}, false);
  const auto change = [&made, held = PadOf(*stream.Find("input_bin"), "src")](GstPad& pad, auto&) {
    ++made;
    Await([&] { return GST_PAD_IS_FLUSHING(&pad) || gst_pad_is_blocked(held.Get()) != FALSE; });
    return GST_PAD_PROBE_OK;
  };
  AddProbe(*PadOf(*stream.Find("color_converter"), "sink"), GST_PAD_PROBE_TYPE_BUFFER, change);
  stream.pipeline.SetEnable(true);
  Await([&] { return made == 1; });
  const auto filter = Make("identity");
  std::pair<std::size_t, std::size_t> least(-1, -1);
  // The cheapest counts: the first find the pipeline starting, and threads that meet may cost an allocation.
  for (std::size_t frames = 0; frames < 20;) {
    const std::pair before(allocations.load(), calls.load());
    for (const auto filter_change : {&Pipeline::AddFilters, &Pipeline::EraseFilters}) {
      (stream.pipeline.*filter_change)({filter});
      ++frames;
      Await([&] { return stream.watch.frames == frames && made == frames + 1; });
    }
    least = {std::min(least.first, allocations - before.first), std::min(least.second, calls - before.second)};
  }
  EXPECT_LE(least.first, 11988U);
  EXPECT_LE(least.second, 497U);
}

}  // namespace live

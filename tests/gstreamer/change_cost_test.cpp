#include "mox/export.h"
#include "mox/gstreamer/pad_probe.h"
#include "tests/gstreamer/live.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <future>
#include <map>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <link.h>

extern "C" {
std::atomic<std::uint64_t> allocations, calls;
std::array<void*, 256> called_functions;
extern char call_stubs;

// In the place of the C library's own, for all that is loaded.
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);

MOX_EXPORT void* malloc(std::size_t size) {
  ++allocations;
  return __libc_malloc(size);
}
MOX_EXPORT void* calloc(std::size_t count, std::size_t size) {
  ++allocations;
  return __libc_calloc(count, size);
}
MOX_EXPORT void* realloc(void* memory, std::size_t size) {
  ++allocations;
  return __libc_realloc(memory, size);
}
}

// Each stub counts and goes on to its function, with whatever arguments.
asm(R"(
  .pushsection .text
  .balign 16
call_stubs:
  .set number, 0
  .rept 256
  .balign 16
  lock incq calls(%rip)
  jmp *called_functions + 8 * number(%rip)
  .set number, number + 1
  .endr
  .popsection
)");

namespace live {
namespace {

/** Has the calls counted that a loaded library makes to GStreamer, to functions whose address it does not take. */
void CountCalls(const char* library) {
  auto* const map = static_cast<link_map*>(dlopen(library, RTLD_LAZY | RTLD_NOLOAD));
  ASSERT_NE(map, nullptr) << dlerror();
  std::map<ElfW(Sxword), ElfW(Addr)> dynamic;
  for (const ElfW(Dyn)* entry = map->l_ld; entry->d_tag != DT_NULL; ++entry) {
    dynamic[entry->d_tag] = entry->d_un.d_ptr;
  }
  const auto* const symbols = reinterpret_cast<const ElfW(Sym)*>(dynamic[DT_SYMTAB]);
  const auto* const names = reinterpret_cast<const char*>(dynamic[DT_STRTAB]);
  const auto* const slots = reinterpret_cast<const ElfW(Rela)*>(dynamic[DT_JMPREL]);
  std::size_t number = 0;
  for (std::size_t i = 0; i < dynamic[DT_PLTRELSZ] / sizeof(*slots); ++i) {
    const std::string name = names + symbols[ELF64_R_SYM(slots[i].r_info)].st_name;
    // The reader looks at the bus twice a second.
    if (name.rfind("gst_", 0) == 0 && name != "gst_bus_timed_pop_filtered") {
      called_functions.at(number) = dlsym(RTLD_DEFAULT, name.c_str());
      *reinterpret_cast<void**>(map->l_addr + slots[i].r_offset) = &call_stubs + 16 * number++;
    }
  }
}

struct Cost {
  std::uint64_t allocations, calls;
};

/** A stream whose frames come when the test says so. */
class Fed : private Stream {
 public:
  explicit Fed(std::size_t chain) : Stream(Make("identity"), {}, kStopped) {
    Elements filters(chain);
    std::generate(filters.begin(), filters.end(), [] { return Make("identity"); });
    pipeline.AddFilters(filters);
    pipeline.SetEnable(true);
    const Ptr<GstCaps> caps(gst_caps_from_string("video/x-raw,format=I420,width=16,height=16,framerate=60/1"));
    GstSegment segment;
    gst_segment_init(&segment, GST_FORMAT_TIME);
    gst_pad_send_event(sink_.Get(), gst_event_new_stream_start("fed"));
    gst_pad_send_event(sink_.Get(), gst_event_new_caps(caps.Get()));
    gst_pad_send_event(sink_.Get(), gst_event_new_segment(&segment));
    Feed();
    Await("playing", [&] { return pipeline.GetState() == Pipeline::State::Playing; });
  }

  /** What a change costs together with the one frame that it holds and that comes out at the end. */
  Cost Measure(void (Pipeline::*change)(Elements), const Ptr<GstElement>& filter) {
    const auto held = PadOf(*Find("input_bin"), "src");
    const Cost before{allocations, calls};
    auto fed = std::async(std::launch::async, [&] {
      Await("the hold", [&] { return gst_pad_is_blocked(held.Get()) != FALSE; });
      Feed();
    });
    (pipeline.*change)({filter});
    fed.get();
    return {allocations - before.allocations, calls - before.calls};
  }

 private:
  // Pushes a frame and waits until it has passed the output.
  void Feed() {
    const std::size_t frames = watch.Frames();
    gst_pad_chain(sink_.Get(), gst_buffer_new_allocate(nullptr, 16 * 16 * 3 / 2, nullptr));
    Await("the frame", [&] { return watch.Frames() > frames; });
    const Ptr<GstPad> queue(gst_pad_get_peer(PadOf(*watch.Element(), "sink").Get()));
    mox::gstreamer::PadProbe passed(*queue, GST_PAD_PROBE_TYPE_IDLE, [](auto&, auto&) { return GST_PAD_PROBE_OK; });
    passed.GetFuture().wait();
  }

  Ptr<GstPad> sink_ = PadOf(*pipeline.GetInput(), "sink");
};

using ChangeCost = live::Test;

// Numbers to be lowered with what they count. They are the same in every build: all that is counted is GStreamer's,
// GLib's and the library's, for one frame and one change.
TEST_F(ChangeCost, DoesNotGrow) {
  CountCalls("libmox_integration_gstreamer.so.1");
  for (const auto& [chain, to_add, to_erase] : {std::tuple(std::size_t{1}, Cost{4288, 204}, Cost{4326, 216}),
                                                std::tuple(std::size_t{8}, Cost{6295, 365}, Cost{6277, 377})}) {
    Fed fed(chain);
    Cost add{};
    Cost erase{};
    // The first ones settle things. Of the others the cheapest counts: threads that meet may cost an allocation.
    for (int i = 0; i < 6; ++i) {
      const auto filter = Make("identity");
      const Cost added = fed.Measure(&Pipeline::AddFilters, filter);
      const Cost erased = fed.Measure(&Pipeline::EraseFilters, filter);
      add = i <= 1 || added.allocations < add.allocations ? added : add;
      erase = i <= 1 || erased.allocations < erase.allocations ? erased : erase;
    }
    EXPECT_LE(add.allocations, to_add.allocations);
    EXPECT_LE(erase.allocations, to_erase.allocations);
    EXPECT_LE(add.calls, to_add.calls);
    EXPECT_LE(erase.calls, to_erase.calls);
  }
}

}  // namespace
}  // namespace live

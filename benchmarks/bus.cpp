#include "mox/gstreamer/bus.h"

#include "benchmarks/times.h"
#include "mox/gstreamer/check/ptr.h"
#include "mox/type/binding.h"

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include <benchmark/benchmark.h>
#include <gst/gst.h>

// Messages of a bus that reach a callback on a reader thread.
namespace benchmarks {
namespace {

using mox::gstreamer::Ptr;

/** Counts the messages that the callback receives. */
struct Seen {
  double last = 0;
  std::atomic<std::size_t> count = 0;

  void OnMessage() {
    last = Now();
    ++count;
  }

  void Await(std::size_t messages) const {
    while (count < messages) {
    }
  }
};

class Library {
 public:
  Library(const Ptr<GstBus>& bus, Seen& seen)
      : bus_(bus),
        binding_(bus_.Bind(GST_MESSAGE_DURATION_CHANGED, [&seen](const GstMessage&) { seen.OnMessage(); })) {}

 private:
  mox::gstreamer::Bus bus_;
  mox::type::Binding binding_;
};

/** A loop with the same wait as the library. */
class BareLoop {
 public:
  BareLoop(const Ptr<GstBus>& bus, Seen& seen) : bus_(bus), thread_([this, &seen] { Run(seen); }) {}
  BareLoop(const BareLoop&) = delete;
  BareLoop& operator=(const BareLoop&) = delete;
  ~BareLoop() {
    stop_ = true;
    thread_.join();
  }

 private:
  void Run(Seen& seen) {
    while (!stop_) {
      GstMessage* const message =
          gst_bus_timed_pop_filtered(bus_.Get(), 500 * GST_MSECOND, GST_MESSAGE_DURATION_CHANGED);
      if (message != nullptr) {
        seen.OnMessage();
        gst_message_unref(message);
      }
    }
  }

  Ptr<GstBus> bus_;
  std::atomic<bool> stop_ = false;
  std::thread thread_;
};

/** A bus watch of a main loop on a thread of its own. */
class MainLoop {
 public:
  MainLoop(const Ptr<GstBus>& bus, Seen& seen) {
    GSource* const source = gst_bus_create_watch(bus.Get());
    const GstBusFunc on_message = [](GstBus*, GstMessage*, gpointer data) -> gboolean {
      static_cast<Seen*>(data)->OnMessage();
      return TRUE;
    };
    g_source_set_callback(source, G_SOURCE_FUNC(on_message), &seen, nullptr);
    g_source_attach(source, context_);
    g_source_unref(source);
    thread_ = std::thread([this] { g_main_loop_run(loop_); });
  }
  MainLoop(const MainLoop&) = delete;
  MainLoop& operator=(const MainLoop&) = delete;
  ~MainLoop() {
    g_main_loop_quit(loop_);
    thread_.join();
    g_main_loop_unref(loop_);
    g_main_context_unref(context_);
  }

 private:
  GMainContext* context_ = g_main_context_new();
  GMainLoop* loop_ = g_main_loop_new(context_, FALSE);
  std::thread thread_;
};

void Post(const Ptr<GstBus>& bus) {
  gst_bus_post(bus.Get(), gst_message_new_duration_changed(nullptr));
}

/** Measures from the post to the callback while the reader waits. */
template <typename Reader>
void Latency(benchmark::State& state) {
  const Ptr<GstBus> bus(gst_bus_new());
  Seen seen;
  const Reader reader(bus, seen);
  Post(bus);
  seen.Await(1);
  for (std::size_t messages = 2; state.KeepRunning(); ++messages) {
    // Let the reader wait again.
    std::this_thread::sleep_for(std::chrono::microseconds(100));
    const double posted = Now();
    Post(bus);
    seen.Await(messages);
    state.SetIterationTime(seen.last - posted);
  }
}

/**
 * Measures a million messages that are on the bus when the reader starts, in a child process with a
 * fresh heap.
 */
template <typename Reader>
void Backlog(benchmark::State& state) {
  constexpr std::size_t kMessages = 1'000'000;
  for ([[maybe_unused]] auto _ : state) {
    const Times taken = InChild([] {
      const Ptr<GstBus> bus(gst_bus_new());
      for (std::size_t i = 0; i < kMessages; ++i) {
        Post(bus);
      }
      Seen seen;
      const Times begin = Times::Current();
      const Reader reader(bus, seen);
      while (seen.count < kMessages) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
      return Times{seen.last - begin.wall, Times::Current().Since(begin).cpu};
    });
    state.SetIterationTime(taken.wall / kMessages);
    state.counters["CPU"] = taken.cpu / kMessages;
  }
}

template <typename Reader>
void Register(const std::string& subject) {
  const auto latency = "a message from post to callback/" + subject;
  const auto backlog = "each of 1,000,000 messages/" + subject;
  benchmark::RegisterBenchmark(latency.c_str(), Latency<Reader>)->UseManualTime();
  benchmark::RegisterBenchmark(backlog.c_str(), Backlog<Reader>)->Iterations(1)->UseManualTime();
}

const bool registered = [] {
  Register<Library>("library");
  Register<BareLoop>("bare timed pop");
  Register<MainLoop>("main loop's watch");
  return true;
}();

}  // namespace
}  // namespace benchmarks

#ifndef TESTS_GSTREAMER_LIVE_H
#define TESTS_GSTREAMER_LIVE_H

#include "mox/gstreamer/check/element.h"
#include "mox/gstreamer/check/ptr.h"
#include "mox/gstreamer/pipeline.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <future>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gst/gst.h>

#include <sys/prctl.h>
#include <unistd.h>

// Sources of numbered frames, outputs that check the numbers, and conditions with a deadline.
namespace live {

using mox::gstreamer::Pipeline;
using mox::gstreamer::Ptr;
using Elements = std::vector<Ptr<GstElement>>;

inline Ptr<GstElement> Make(const char* factory, const char* name = nullptr) {
  return mox::gstreamer::check::element::Make(factory, name, "");
}

/** Creates a bin of a description, with ghost pads. */
inline Ptr<GstElement> Parse(const std::string& description, const char* name = nullptr) {
  Ptr<GstElement> bin(gst_parse_bin_from_description(description.c_str(), TRUE, nullptr));
  gst_object_set_name(GST_OBJECT(bin.Get()), name);
  return bin;
}

/** Returns the number of references to an object. */
template <typename T>
int References(const Ptr<T>& object) {
  return GST_OBJECT_REFCOUNT_VALUE(object.Get());
}

/**
 * Creates a source of small frames, numbered in GST_BUFFER_OFFSET: 60 a second if it is paced,
 * otherwise as many as it can. Its description ends with `end`.
 */
inline Ptr<GstElement> MakeSource(bool paced = false, const std::string& end = "") {
  return Parse(std::string("videotestsrc pattern=black is-live=") + (paced ? "true" : "false") +
               " ! capsfilter caps=video/x-raw,width=16,height=16,framerate=60/1" + end);
}

inline Ptr<GstElement> Find(GstBin& bin, const char* name) {
  return Ptr<GstElement>(gst_bin_get_by_name(&bin, name));
}

inline Ptr<GstPad> PadOf(GstElement& element, const char* name) {
  return Ptr<GstPad>(gst_element_get_static_pad(&element, name));
}

/** Adds a probe that calls the function. */
inline gulong AddProbe(GstPad& pad, int types, std::function<GstPadProbeReturn(GstPad&, GstPadProbeInfo&)> function) {
  using Function = decltype(function);
  return gst_pad_add_probe(
      &pad, static_cast<GstPadProbeType>(types),
      [](GstPad* at, GstPadProbeInfo* info, gpointer data) { return (*static_cast<Function*>(data))(*at, *info); },
      new Function(std::move(function)), [](gpointer data) { delete static_cast<Function*>(data); });
}

/** Aborts after this many seconds, unless it is called again. With gdb it prints all stacks. */
inline void SetDeadline(unsigned seconds = 280) {
  // The handler may interrupt malloc, so it allocates nothing. A second alarm ends a gdb that hangs.
  static const std::string print_stacks =
      "echo 'a thread hangs' 1>&2; gdb -batch -nx -ex 'thread apply all bt' -p " + std::to_string(getpid()) + " 1>&2";
  std::signal(SIGALRM, [](int) {
    std::signal(SIGALRM, SIG_DFL);
    alarm(60);
    prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY);
    [[maybe_unused]] const int status = std::system(print_stacks.c_str());
    std::abort();
  });
  alarm(seconds);
}

/** Waits until the condition holds. */
template <typename Condition>
void Await(const Condition& condition) {
  while (!condition()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

/** Starts a change on another thread, and expects that it waits. */
inline std::shared_future<void> StartToWait(const std::function<void()>& change) {
  std::promise<void> started;
  const auto start = [&started, change] {
    started.set_value();
    change();
  };
  auto waiting = std::async(std::launch::async, start).share();
  started.get_future().wait();
  EXPECT_EQ(waiting.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout) << "it does not wait";
  return waiting;
}

/** Blocks a sink for ever at its next buffer, and waits until it is blocked. */
inline void Block(GstElement& sink) {
  const auto pad = PadOf(sink, "sink");
  AddProbe(*pad, GST_PAD_PROBE_TYPE_BLOCK | GST_PAD_PROBE_TYPE_BUFFER, [](auto&...) { return GST_PAD_PROBE_OK; });
  Await([&] { return gst_pad_is_blocking(pad.Get()) != FALSE; });
}

/** Updates the group of a stream. Returns true if the event starts another stream. */
inline bool UpdateStream(GstEvent& event, guint& stream) {
  const guint before = stream;  // a new link repeats the event
  return GST_EVENT_TYPE(&event) == GST_EVENT_STREAM_START && gst_event_parse_group_id(&event, &stream) != FALSE &&
         stream != before;
}

inline bool IsEos(const GstPadProbeInfo& event) {
  return GST_EVENT_TYPE(event.data) == GST_EVENT_EOS;
}

MATCHER(IsIntact, "lost, repeated or reordered no frame and received no EOS") {
  *result_listener << arg.lost << " lost, " << arg.misplaced << " misplaced, " << arg.eos << " EOS";
  return arg.lost == 0U && arg.misplaced == 0U && arg.eos == 0U;
}

/** Counts what reaches a pad. */
struct Counter {
  void Count(GstPad& pad, GstPadProbeInfo& info) {
    if ((info.type & GST_PAD_PROBE_TYPE_BUFFER) != 0) {
      OnFrame(pad, GST_BUFFER_OFFSET(GST_PAD_PROBE_INFO_BUFFER(&info)));
    } else {
      OnEvent(*GST_PAD_PROBE_INFO_EVENT(&info));
    }
  }

  void OnFrame(GstPad& pad, guint64 number) {
    const guint64 expected = next == GST_BUFFER_OFFSET_NONE ? number : next.load();
    if (number > expected && !IsStopping(pad)) {
      lost += number - expected;
    }
    misplaced += number < expected ? 1 : 0;
    next = number + 1;
    is_flushed = false;
    ++frames;
  }

  void OnEvent(GstEvent& event) {
    const guint before = stream;
    eos += GST_EVENT_TYPE(&event) == GST_EVENT_EOS ? 1 : 0;
    flushes += GST_EVENT_TYPE(&event) == GST_EVENT_FLUSH_START ? 1 : 0;
    if (UpdateStream(event, stream)) {
      misplaced += stream < before ? 1 : 0;
      next = before == 0 || is_flushed ? GST_BUFFER_OFFSET_NONE : 0;
    } else if (GST_EVENT_TYPE(&event) == GST_EVENT_FLUSH_STOP) {
      // Frames have been discarded, maybe the first of a stream without stream-start.
      is_flushed = true;
      next = GST_BUFFER_OFFSET_NONE;
    }
  }

  // Returns true while the element of a pad, or a bin around it, stops. Sinks that have stopped make
  // queues upstream drop buffers, and those that are still in PAUSED may receive later ones, which
  // they never render.
  static bool IsStopping(GstPad& pad) {
    Ptr<GstObject> object(gst_object_get_parent(GST_OBJECT(&pad)));
    while (object && GST_STATE_TARGET(object.Get()) >= GST_STATE_PAUSED) {
      object = Ptr<GstObject>(gst_object_get_parent(object.Get()));
    }
    return static_cast<bool>(object);
  }

  std::atomic<std::size_t> frames = 0;
  std::atomic<std::size_t> lost = 0;
  std::atomic<std::size_t> misplaced = 0;
  std::atomic<std::size_t> eos = 0;
  std::atomic<std::size_t> flushes = 0;
  guint stream = 0;  // of the streaming thread
  std::atomic<bool> is_flushed = false;
  std::atomic<guint64> next = GST_BUFFER_OFFSET_NONE;
};

/**
 * Counts what reaches an element's "sink" pad, and every step in the frames' numbers that is not
 * one. The first frame may have any number. A later stream starts at 0.
 */
struct Watch {
  explicit Watch(Ptr<GstElement> watched) : element(std::move(watched)) {
    constexpr auto items =
        GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM | GST_PAD_PROBE_TYPE_EVENT_FLUSH;
    // The probe may outlast this object.
    AddProbe(*PadOf(*element, "sink"), items, [counter = counter](GstPad& pad, GstPadProbeInfo& info) {
      counter->Count(pad, info);
      return GST_PAD_PROBE_OK;
    });
  }

  /** Waits for `count` more frames. */
  void AwaitFrames(std::size_t count = 2) const {
    Await([this, target = frames + count] { return frames >= target; });
  }

  /** Expects the stream to go on, intact except for frames that a renegotiation may drop. */
  void ExpectWhole(std::size_t may_drop = 0) const {
    AwaitFrames(10);
    EXPECT_LE(lost, may_drop);
    EXPECT_EQ(misplaced, 0U);
    EXPECT_EQ(eos, 0U);
  }

  const Ptr<GstElement> element;
  const std::shared_ptr<Counter> counter = std::make_shared<Counter>();
  const std::atomic<std::size_t>& frames = counter->frames;
  const std::atomic<std::size_t>& lost = counter->lost;
  const std::atomic<std::size_t>& misplaced = counter->misplaced;  ///< Repeated or out of order.
  const std::atomic<std::size_t>& eos = counter->eos;
  const std::atomic<std::size_t>& flushes = counter->flushes;
};

/** A pipeline with an output that is watched. Plays by default. */
struct Stream {
  explicit Stream(const Ptr<GstElement>& input = MakeSource(), const Elements& filters = {}, bool plays = true) {
    pipeline.SetInput(input);
    pipeline.AddFilters(filters);
    pipeline.AddOutputs({watch.element});
    if (plays) {
      pipeline.SetEnable(true);
      watch.AwaitFrames();
    }
  }

  Ptr<GstElement> Find(const char* name) { return live::Find(*GST_BIN(&pipeline.Get()), name); }

  /** Sets the state through the element, as a program may. */
  void SetState(GstState state) { gst_element_set_state(GST_ELEMENT(&pipeline.Get()), state); }

  /** Waits until a state change has completed, and returns the state. */
  GstState AwaitState() {
    GstState state = GST_STATE_VOID_PENDING;
    gst_element_get_state(GST_ELEMENT(&pipeline.Get()), &state, nullptr, GST_CLOCK_TIME_NONE);
    return state;
  }

  /** Closes or opens the element "valve". Waits until the frame that is passing it has passed. */
  void SetDrop(gboolean drop) {
    const auto valve = Find("valve");
    g_object_set(valve.Get(), "drop", drop, nullptr);
    const auto sink = PadOf(*valve, "sink");
    GST_PAD_STREAM_LOCK(sink.Get());
    GST_PAD_STREAM_UNLOCK(sink.Get());
  }

  void AddAndEraseFilter(const char* factory) {
    const auto filter = Make(factory);
    pipeline.AddFilters({filter});
    pipeline.EraseFilters({filter});
  }

  Watch watch{Make("fakesink", "watched")};
  Pipeline pipeline{1, "stream"};
};

/** Initialises GStreamer. Its warnings, for example about misordered events, fail the test. */
class Test : public testing::Test {
 protected:
  void SetUp() override { SetDeadline(); }

  static void SetUpTestSuite() {
    gst_init(nullptr, nullptr);
    const auto fail = [](const char*, GLogLevelFlags, const char* message, gpointer) { ADD_FAILURE() << message; };
    g_log_set_handler("GStreamer", G_LOG_LEVEL_WARNING, fail, nullptr);
  }
};

}  // namespace live

#endif

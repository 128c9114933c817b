#ifndef TESTS_GSTREAMER_LIVE_H
#define TESTS_GSTREAMER_LIVE_H

#include "mox/gstreamer/bin/filter.h"
#include "mox/gstreamer/check/element.h"
#include "mox/gstreamer/check/ptr.h"
#include "mox/gstreamer/pipeline.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <future>
#include <iostream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gst/gst.h>
#include <gtest/gtest.h>

#include <sys/prctl.h>
#include <unistd.h>

// Sources of numbered frames, outputs that prove the numbers, and conditions with deadlines.
namespace live {

using mox::gstreamer::Pipeline;
using mox::gstreamer::Ptr;
using Elements = std::vector<Ptr<GstElement>>;

inline Ptr<GstElement> Make(const char* factory, const char* name = nullptr) {
  return mox::gstreamer::check::element::Make(factory, name, "");
}

/** A bin made of a description, with ghost pads; `name` names it. */
inline Ptr<GstElement> Parse(const std::string& description, const char* name = nullptr) {
  Ptr<GstElement> bin(gst_parse_bin_from_description(description.c_str(), TRUE, nullptr));
  if (name != nullptr) {
    gst_object_set_name(GST_OBJECT(bin.Get()), name);
  }
  return bin;
}

inline Ptr<GstElement> Find(GstBin& bin, const char* name) {
  return Ptr<GstElement>(gst_bin_get_by_name(&bin, name));
}

inline Ptr<GstPad> PadOf(GstElement& element, const char* name) {
  return Ptr<GstPad>(gst_element_get_static_pad(&element, name));
}

/** Has the function decide on what comes to the pad. */
inline gulong AddProbe(GstPad& pad, int types, std::function<GstPadProbeReturn(GstPad&, GstPadProbeInfo&)> function) {
  using Function = decltype(function);
  return gst_pad_add_probe(
      &pad, static_cast<GstPadProbeType>(types),
      [](GstPad* at, GstPadProbeInfo* info, gpointer data) { return (*static_cast<Function*>(data))(*at, *info); },
      new Function(std::move(function)), [](gpointer data) { delete static_cast<Function*>(data); });
}

/** What kind of event a probe for events has met. */
inline GstEventType EventType(GstPadProbeInfo& info) {
  return GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(&info));
}

/** Has the function called at each such signal of the object. */
inline void Connect(void* object, const char* signal, std::function<void()> function) {
  using Function = decltype(function);
  const auto call = [](Function* connected) { (*connected)(); };
  const auto destroy = [](gpointer connected, GClosure*) { delete static_cast<Function*>(connected); };
  g_signal_connect_data(object, signal, G_CALLBACK(+call), new Function(std::move(function)), destroy,
                        G_CONNECT_SWAPPED);
}

/** Small numbered frames (GST_BUFFER_OFFSET), as fast as they go or 60 a second; `end` is what they pass first. */
inline Ptr<GstElement> MakeSource(bool paced = false, const char* end = "") {
  return Parse(std::string("videotestsrc pattern=black is-live=") + (paced ? "true" : "false") +
               " ! capsfilter caps=video/x-raw,width=16,height=16,framerate=60/1" + end);
}

constexpr auto kDeadline = std::chrono::seconds(20);

/** Ends the test program, for a thread hangs; tells what every thread does, where gdb is installed. */
[[noreturn]] inline void Hang(const char* awaited = "a thread") {
  std::cerr << "still waiting for " << awaited << std::endl;
  prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY);
  const std::string command = "gdb -batch -nx -ex 'thread apply all bt' -p " + std::to_string(getpid()) + " 1>&2";
  std::cerr << "gdb returned " << std::system(command.c_str()) << std::endl;
  std::abort();
}

/** Waits until the condition holds; ends the test program when it does not in time, for then a thread hangs. */
template <typename Condition>
void Await(const char* what, const Condition& condition) {
  for (const auto end = std::chrono::steady_clock::now() + kDeadline; !condition();) {
    if (std::chrono::steady_clock::now() > end) {
      Hang(what);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

/** Runs the function, and ends the test program when it does not return in time. */
template <typename Function>
void Within(std::chrono::seconds limit, const Function& function) {
  auto call = std::async(std::launch::async, function);
  if (call.wait_for(limit) == std::future_status::timeout) {
    Hang("a call");
  }
  call.get();
}

/**
 * Counts what reaches an element's "sink" pad, and every step in the frames' numbers that is not one. The first frame
 * seen follows on nothing; that of a later stream is number 0.
 */
class Watch {
 public:
  /** How many of the frames missing from one number to before another are lost; asked at each frame of the stream. */
  using Judge = std::function<std::size_t(guint stream, guint64 from, guint64 to)>;

  explicit Watch(
      Ptr<GstElement> element, Judge judge = [](guint, guint64 from, guint64 to) { return to - from; })
      : element_(std::move(element)),
        judge_(std::move(judge)),
        pad_(PadOf(*element_, "sink")),
        probe_(AddProbe(*pad_, GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM,
                        [this](GstPad&, GstPadProbeInfo& info) { return OnItem(info); })) {}
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;
  ~Watch() { gst_pad_remove_probe(pad_.Get(), probe_); }

  const Ptr<GstElement>& Element() const { return element_; }
  std::size_t Frames() const { return frames_; }
  std::size_t Lost() const { return lost_; }
  std::size_t Misplaced() const { return misplaced_; }  ///< Repeated or out of order.
  std::size_t Eos() const { return eos_; }

  /** Waits until `count` more frames have come. */
  void AwaitFrames(std::size_t count = 2) const {
    const std::size_t target = frames_ + count;
    Await("frames", [&] { return frames_ >= target; });
  }

  /** Expects the stream to go on, and no more frames to be lost than were given up. */
  void ExpectWhole(std::size_t given_up = 0) const {
    AwaitFrames(10);
    EXPECT_LE(Lost(), given_up);
    EXPECT_EQ(Misplaced() + Eos(), 0U);
  }

 private:
  GstPadProbeReturn OnItem(GstPadProbeInfo& info) {
    GstEvent* const event = GST_PAD_PROBE_INFO_EVENT(&info);
    guint stream = stream_;
    if ((info.type & GST_PAD_PROBE_TYPE_BUFFER) != 0) {
      OnFrame(GST_BUFFER_OFFSET(GST_PAD_PROBE_INFO_BUFFER(&info)));
    } else if (GST_EVENT_TYPE(event) == GST_EVENT_EOS) {
      ++eos_;
    } else if (GST_EVENT_TYPE(event) == GST_EVENT_STREAM_START && gst_event_parse_group_id(event, &stream) != FALSE) {
      OnStream(stream);
    }
    return GST_PAD_PROBE_OK;
  }

  void OnFrame(guint64 number) {
    const guint64 expected = next_ == GST_BUFFER_OFFSET_NONE ? number : next_.load();
    lost_ += judge_(stream_, expected, std::max(expected, number));
    misplaced_ += number < expected ? 1 : 0;
    next_ = number + 1;
    ++frames_;
  }

  // A source gives every stream that it starts a group of its own; a pad that is linked anew hears of the same again.
  void OnStream(guint stream) {
    misplaced_ += stream < stream_ ? 1 : 0;
    if (const guint before = stream_.exchange(stream); before != stream) {
      next_ = before == 0 ? GST_BUFFER_OFFSET_NONE : 0;
    }
  }

  Ptr<GstElement> element_;
  Judge judge_;
  std::atomic<guint> stream_ = 0;
  std::atomic<guint64> next_ = GST_BUFFER_OFFSET_NONE;
  std::atomic<std::size_t> frames_ = 0;
  std::atomic<std::size_t> lost_ = 0;
  std::atomic<std::size_t> misplaced_ = 0;
  std::atomic<std::size_t> eos_ = 0;
  Ptr<GstPad> pad_;
  gulong probe_;
};

inline Ptr<GstElement> MakeSink(const char* name = nullptr) {
  return Make("fakesink", name);
}

/** A pipeline with one watched output, or more; each change of it is to return in time. */
struct Stream {
  enum Start { kPlaying, kStopped };

  explicit Stream(Ptr<GstElement> input = MakeSource(), Elements filters = {}, Start start = kPlaying) {
    pipeline.SetInput(std::move(input));
    pipeline.AddFilters(std::move(filters));
    pipeline.AddOutputs({watch.Element()});
    if (start == kPlaying) {
      Play();
    }
  }

  void Play() {
    SetEnable(true);
    watch.AwaitFrames();
  }

  void SetEnable(bool enable) { Change(&Pipeline::SetEnable, enable); }
  void SetInput(Ptr<GstElement> input) { Change(&Pipeline::SetInput, std::move(input)); }
  void AddFilters(Elements filters) { Change(&Pipeline::AddFilters, std::move(filters)); }
  void EraseFilters(Elements filters) { Change(&Pipeline::EraseFilters, std::move(filters)); }
  void AddOutputs(Elements outputs) { Change(&Pipeline::AddOutputs, std::move(outputs)); }
  void EraseOutputs(Elements outputs) { Change(&Pipeline::EraseOutputs, std::move(outputs)); }

  template <typename Argument>
  void Change(void (Pipeline::*change)(Argument), Argument to) {
    Within(kDeadline, [&] { (pipeline.*change)(std::move(to)); });
  }

  GstBin& Bin() { return *GST_BIN(&pipeline.Get()); }
  Ptr<GstElement> Find(const char* name) { return live::Find(Bin(), name); }
  std::string Graph() { return mox::gstreamer::bin::filter::GetGraph(*GST_BIN(Find("filter_bin").Get())); }

  Watch watch{MakeSink("watched")};
  Pipeline pipeline{1, "stream"};
};

/** How many probes there are on the pads of what is in the bin, at any depth. */
inline int CountProbes(GstBin& bin) {
  int probes = 0;
  const auto count = [](GstElement*, GstPad* pad, gpointer sum) -> gboolean {
    const Ptr<GstProxyPad> inner(GST_IS_GHOST_PAD(pad) ? gst_proxy_pad_get_internal(GST_PROXY_PAD(pad)) : nullptr);
    *static_cast<int*>(sum) += pad->num_probes + (inner ? GST_PAD_CAST(inner.Get())->num_probes : 0);
    return TRUE;
  };
  for (const GList* child = bin.children; child != nullptr; child = child->next) {
    gst_element_foreach_pad(GST_ELEMENT(child->data), count, &probes);
    probes += GST_IS_BIN(child->data) ? CountProbes(*GST_BIN(child->data)) : 0;
  }
  return probes;
}

/** A test with GStreamer up, which fails with what GStreamer warns of, as events out of their order. */
class Test : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    gst_init(nullptr, nullptr);
    const auto fail = [](const char*, GLogLevelFlags, const char* message, gpointer) { ADD_FAILURE() << message; };
    g_log_set_handler("GStreamer", G_LOG_LEVEL_WARNING, fail, nullptr);
  }
};

}  // namespace live

#endif

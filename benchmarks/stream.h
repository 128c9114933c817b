#ifndef BENCHMARKS_STREAM_H
#define BENCHMARKS_STREAM_H

#include "benchmarks/by_hand.h"
#include "benchmarks/times.h"
#include "mox/gstreamer/check/element.h"
#include "mox/gstreamer/check/ptr.h"
#include "mox/gstreamer/pipeline.h"

#include <algorithm>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <gst/gst.h>

// Sources, watched outputs, and one pipeline built in three ways.
namespace benchmarks {

using mox::gstreamer::Ptr;
using Elements = std::vector<Ptr<GstElement>>;

inline Ptr<GstElement> Make(const char* factory) {
  return mox::gstreamer::check::element::Make(factory, nullptr, "");
}

inline Elements MakeFilters(std::size_t count) {
  Elements filters(count);
  std::generate(filters.begin(), filters.end(), [] { return Make("identity"); });
  return filters;
}

/** The speed of a source: as fast as possible, or 60 frames a second. */
enum class Pace { Unthrottled, Live };

// Frames so small that they cost almost nothing to make.
inline std::string DescribeSource(Pace pace) {
  return std::string("videotestsrc pattern=black is-live=") + (pace == Pace::Live ? "true" : "false") +
         " ! capsfilter caps=video/x-raw,format=I420,width=16,height=16,framerate=60/1";
}

inline Ptr<GstElement> MakeSource(Pace pace) {
  return Ptr<GstElement>(gst_parse_bin_from_description(DescribeSource(pace).c_str(), TRUE, nullptr));
}

/** Counts the frames that reach an output, and measures the longest gap between two. */
class Watch {
 public:
  explicit Watch(Ptr<GstElement> output) : output_(std::move(output)) {
    const Ptr<GstPad> pad(gst_element_get_static_pad(output_.Get(), "sink"));
    gst_pad_add_probe(pad.Get(), GST_PAD_PROBE_TYPE_BUFFER, OnFrame, this, nullptr);
  }

  const Ptr<GstElement>& Output() const { return output_; }

  std::size_t Frames() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return frames_;
  }

  /** Blocks until this many frames have arrived in all. */
  void Await(std::size_t frames) {
    std::unique_lock<std::mutex> lock(mutex_);
    awaited_ = frames;
    condition_.wait(lock, [this] { return frames_ >= awaited_; });
  }

  /** Returns the longest gap, in seconds, since the last call. */
  double TakeGap() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return std::exchange(gap_, 0);
  }

 private:
  static GstPadProbeReturn OnFrame(GstPad* /*pad*/, GstPadProbeInfo* /*info*/, gpointer data) {
    auto& watch = *static_cast<Watch*>(data);
    const std::lock_guard<std::mutex> lock(watch.mutex_);
    const double now = Now();
    if (watch.frames_++ > 0) {
      watch.gap_ = std::max(watch.gap_, now - watch.last_);
    }
    watch.last_ = now;
    if (watch.frames_ == watch.awaited_) {
      watch.condition_.notify_one();
    }
    return GST_PAD_PROBE_OK;
  }

  Ptr<GstElement> output_;
  std::mutex mutex_;
  std::condition_variable condition_;
  std::size_t frames_ = 0;
  std::size_t awaited_ = 0;
  double last_ = 0;
  double gap_ = 0;
};

inline Ptr<GstElement> MakeOutput() {
  auto output = Make("fakesink");
  g_object_set(output.Get(), "sync", FALSE, nullptr);
  return output;
}

/** The pipeline of the library. */
class Library {
 public:
  void AddFilters(const Elements& filters) { pipeline.AddFilters(filters); }
  void AddFilter(const Ptr<GstElement>& filter) { pipeline.AddFilters({filter}); }
  void EraseFilter(const Ptr<GstElement>& filter) { pipeline.EraseFilters({filter}); }
  void AddOutput(const Ptr<GstElement>& output) { pipeline.AddOutputs({output}); }
  void EraseOutput(const Ptr<GstElement>& output) { pipeline.EraseOutputs({output}); }
  void SetInput(const Ptr<GstElement>& input) { pipeline.SetInput(input); }
  void Start() { pipeline.SetEnable(true); }

 protected:
  mox::gstreamer::Pipeline pipeline{1, "library"};
};

inline void SetFilters(ByHand& hand, const Elements& filters) {
  GList* list = nullptr;
  std::for_each(filters.rbegin(), filters.rend(),
                [&](const auto& filter) { list = g_list_prepend(list, filter.Ref()); });
  by_hand_set_filters(&hand, list);
}

/** The same pipeline written by hand. */
template <ByHandExtent kExtent>
class Hand {
 public:
  void AddFilters(const Elements& filters) { SetFilters(*hand_, filters); }
  void AddFilter(const Ptr<GstElement>& filter) { by_hand_add_filter(hand_.get(), filter.Ref(), kExtent); }
  void EraseFilter(const Ptr<GstElement>& filter) { by_hand_erase_filter(hand_.get(), filter.Get(), kExtent); }
  void AddOutput(const Ptr<GstElement>& output) { by_hand_add_output(hand_.get(), output.Ref()); }
  void EraseOutput(const Ptr<GstElement>& output) { by_hand_erase_output(hand_.get(), output.Get()); }
  void SetInput(const Ptr<GstElement>& input) { by_hand_set_source(hand_.get(), input.Ref()); }
  void Start() { gst_element_set_state(hand_->bin, GST_STATE_PLAYING); }

 private:
  std::unique_ptr<ByHand, decltype(&by_hand_free)> hand_{by_hand_new(), by_hand_free};
};

/**
 * The pipeline of the library, whose filters are changed by hand between the fixed ends of the
 * filter bin.
 */
class HandInBins : public Library {
 public:
  ~HandInBins() { g_list_free_full(hand_.filters, gst_object_unref); }

  void AddFilters(const Elements& filters) { SetFilters(hand_, filters); }
  void AddFilter(const Ptr<GstElement>& filter) { by_hand_add_filter(&hand_, filter.Ref(), BY_HAND_CHAIN); }
  void EraseFilter(const Ptr<GstElement>& filter) { by_hand_erase_filter(&hand_, filter.Get(), BY_HAND_CHAIN); }

 private:
  GstElement* Find(const char* name) {
    return Ptr<GstElement>(gst_bin_get_by_name(GST_BIN(&pipeline.Get()), name)).Get();  // the pipeline owns it
  }

  ByHand hand_{Find("filter_bin"), nullptr, Find("sink_filter"), nullptr, Find("source_filter")};
};

}  // namespace benchmarks

#endif

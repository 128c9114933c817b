#include "mox/gstreamer/bin/live/finish.h"

#include "mox/gstreamer/bin/element.h"
#include "mox/gstreamer/bin/live/change.h"
#include "mox/gstreamer/bin/live/cut_off.h"
#include "mox/gstreamer/check/event.h"
#include "mox/gstreamer/iterator.h"

#include <algorithm>
#include <thread>
#include <utility>

namespace mox::gstreamer::bin::live {
namespace {

// Sends a branch an EOS, unless it has one. Returns false if the branch has failed. Sends nothing
// while another thread has the stream lock, for example for a query that waits in the queue. The
// caller repeats the call until the output ends, because a flush discards the EOS.
bool SendEos(GstPad& sink) {
  if (GST_PAD_IS_EOS(&sink) || !GST_PAD_STREAM_TRYLOCK(&sink)) {
    return true;
  }
  const bool accepted = gst_pad_send_event(&sink, check::event::MakeEos("Event Error: ").Ref());
  GST_PAD_STREAM_UNLOCK(&sink);
  return accepted || GST_PAD_IS_FLUSHING(&sink);
}

// Returns the EOS message that an output has posted. The output bin stores it until the next change
// to PLAYING, or until all sinks of the bin have ended.
Ptr<GstMessage> FindEos(GstBin& outputBin, GstElement& output) {
  const auto is_eos = [](gconstpointer message, gconstpointer source) noexcept -> gint {
    return GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS && GST_MESSAGE_SRC(message) == source ? 0 : 1;
  };
  GST_OBJECT_LOCK(&outputBin);
  const GList* const found = g_list_find_custom(outputBin.messages, &output, is_eos);
  Ptr<GstMessage> message(found != nullptr ? gst_message_ref(GST_MESSAGE(found->data)) : nullptr);
  GST_OBJECT_UNLOCK(&outputBin);
  return message;
}

// Ends the sources that an output contains, such as a microphone.
void EndSources(const Ptr<GstElement>& output) {
  for (const auto& element : Flatten(output)) {
    if (GST_OBJECT_FLAG_IS_SET(element.Get(), GST_ELEMENT_FLAG_SOURCE) && !GST_IS_BIN(element.Get())) {
      gst_element_send_event(element.Get(), check::event::MakeEos("Event Error: ").Ref());
    }
  }
}

// Returns true if every sink of the output has received EOS.
bool AreSinksAtEos(const Ptr<GstElement>& output) {
  const auto elements = Flatten(output);
  return std::all_of(elements.begin(), elements.end(), [](const Ptr<GstElement>& element) {
    const bool is_sink = GST_OBJECT_FLAG_IS_SET(element.Get(), GST_ELEMENT_FLAG_SINK) && !GST_IS_BIN(element.Get());
    const auto pads =
        is_sink ? Collect<GstPad>(gst_element_iterate_sink_pads(element.Get())) : std::vector<Ptr<GstPad>>();
    return std::all_of(pads.begin(), pads.end(), [](const Ptr<GstPad>& pad) { return GST_PAD_IS_EOS(pad.Get()); });
  });
}

/** An output that is being finished. */
class Ending {
 public:
  enum class Progress { Running, Ended, Failed };

  Ending(GstBin& outputBin, const Branch& branch)
      : output(branch.output),
        queue_sink_(GetSink(*branch.queue)),
        had_eos_(GST_PAD_IS_EOS(queue_sink_.Get())),
        stale_(had_eos_ ? Ptr<GstMessage>() : FindEos(outputBin, *output)) {}

  // Sends the EOS if it has yet to be sent.
  Progress Advance(GstBin& outputBin) const {
    if (!SendEos(*queue_sink_)) {
      return Progress::Failed;
    }
    const auto posted = FindEos(outputBin, *output);
    const bool has_ended = (posted && posted != stale_) || (had_eos_ && AreSinksAtEos(output));
    return has_ended ? Progress::Ended : Progress::Running;
  }

  Ptr<GstElement> output;

 private:
  Ptr<GstPad> queue_sink_;
  bool had_eos_;           // The stream ended earlier. The bin may have dropped the message already.
  Ptr<GstMessage> stale_;  // Posted at the end of an earlier stream.
};

// Cuts the branches off. Returns those that have something to end.
std::vector<Ending> CutOffAll(GstBin& outputBin, const std::vector<Branch>& branches) {
  std::vector<Ending> endings;
  for (const auto& branch : branches) {
    const auto sink = GetSink(*branch.queue);
    const auto pad = GetPeer(*sink);
    CutOff(*pad, branch);
    WaitUntilIdle(outputBin, *pad, branch);
    if (gst_pad_has_current_caps(sink.Get())) {
      endings.emplace_back(outputBin, branch);
    }
  }
  return endings;
}

}  // namespace

std::vector<Ptr<GstElement>> Finish(GstBin& outputBin, const std::vector<Branch>& branches,
                                    std::chrono::nanoseconds timeout) {
  const auto begin = std::chrono::steady_clock::now();
  std::vector<Ptr<GstElement>> failed;
  auto running = CutOffAll(outputBin, branches);
  for (const auto& ending : running) {
    EndSources(ending.output);
  }

  // Look for the EOS messages at every slice, because the output bin stores them and posts none.
  while (true) {
    const bool is_late = std::chrono::steady_clock::now() - begin >= timeout;
    const auto is_over = [&](const Ending& ending) {
      const auto progress = ending.Advance(outputBin);
      const bool has_failed =
          progress == Ending::Progress::Failed || (progress == Ending::Progress::Running && is_late);
      if (has_failed) {
        failed.push_back(ending.output);
      }
      return has_failed || progress == Ending::Progress::Ended;
    };
    running.erase(std::remove_if(running.begin(), running.end(), is_over), running.end());
    if (running.empty()) {
      return failed;
    }
    CheckStop(outputBin);
    std::this_thread::sleep_for(kSlice);
  }
}

}  // namespace mox::gstreamer::bin::live

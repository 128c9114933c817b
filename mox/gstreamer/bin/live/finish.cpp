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

/** A branch that is being finished. */
struct Ending {
  enum class Progress { Running, Ended, Failed };

  Ending(GstBin& outputBin, Ptr<GstElement> of, Ptr<GstPad> queue)
      : output(std::move(of)),
        sink(std::move(queue)),
        had_eos(GST_PAD_IS_EOS(sink.Get())),
        stale(had_eos ? Ptr<GstMessage>() : FindEos(outputBin, *output)) {
    EndSources(output);
  }

  Progress Check(GstBin& outputBin) const {
    if (!SendEos(*sink)) {
      return Progress::Failed;
    }
    const auto posted = FindEos(outputBin, *output);
    const bool has_ended = (posted && posted != stale) || (had_eos && AreSinksAtEos(output));
    return has_ended ? Progress::Ended : Progress::Running;
  }

  Ptr<GstElement> output;
  Ptr<GstPad> sink;       ///< The sink pad of the queue.
  bool had_eos;           ///< The stream ended earlier. The bin may have dropped the message already.
  Ptr<GstMessage> stale;  ///< Posted at the end of an earlier stream.
};

}  // namespace

Branch Finish(GstBin& outputBin, const std::vector<Branch>& branches, std::chrono::nanoseconds timeout) {
  const auto begin = std::chrono::steady_clock::now();
  const auto is_late = [&] { return std::chrono::steady_clock::now() - begin >= timeout; };
  std::vector<Ending> running;
  Branch failed;

  // Cut off all branches before the wait for their sinks.
  for (const auto& branch : branches) {
    const auto sink = GetSink(*branch.front());
    const auto pad = GetPeer(*sink);
    CutOff(*pad, branch);
    if (!WaitUntilIdle(outputBin, *pad, branch, is_late)) {
      failed.push_back(branch.back());
    } else if (gst_pad_has_current_caps(sink.Get())) {
      running.emplace_back(outputBin, branch.back(), sink);
    }
  }

  // Look for the EOS messages at every slice, because the output bin stores them and posts none.
  while (!running.empty()) {
    const auto has_stopped = [&](const Ending& ending) {
      const auto progress = ending.Check(outputBin);
      const bool has_failed =
          progress == Ending::Progress::Failed || (progress == Ending::Progress::Running && is_late());
      if (has_failed) {
        failed.push_back(ending.output);
      }
      return has_failed || progress == Ending::Progress::Ended;
    };
    running.erase(std::remove_if(running.begin(), running.end(), has_stopped), running.end());
    if (!running.empty()) {
      CheckStop(outputBin);
      std::this_thread::sleep_for(kSlice);
    }
  }
  return failed;
}

}  // namespace mox::gstreamer::bin::live

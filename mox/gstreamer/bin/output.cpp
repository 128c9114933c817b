#include "mox/gstreamer/bin/output.h"

#include "mox/gstreamer/bin/element.h"
#include "mox/gstreamer/bin/live/branch.h"
#include "mox/gstreamer/bin/live/change.h"
#include "mox/gstreamer/bin/live/finish.h"
#include "mox/gstreamer/check/bin.h"
#include "mox/gstreamer/check/element.h"
#include "mox/gstreamer/check/failure.h"
#include "mox/gstreamer/check/pad.h"
#include "mox/gstreamer/iterator.h"
#include "mox/gstreamer/name.h"

#include <algorithm>
#include <exception>
#include <stdexcept>
#include <string>
#include <utility>

namespace mox::gstreamer::bin::output {
namespace {

constexpr auto kTee = "output_tee";
constexpr auto kPlaceholder = "dummy_output";

Ptr<GstElement> GetTee(GstBin& outputBin) {
  return check::bin::GetElement(outputBin, kTee, kBinError);
}

Ptr<GstElement> MakePlaceholder() {
  return check::element::Make("fakesink", kPlaceholder, kElementError);
}

void AttachPlaceholder(GstBin& outputBin, GstElement& tee) {
  if (!Contains(outputBin, kPlaceholder)) {
    live::Attach(outputBin, tee, {{}, MakePlaceholder()});
  }
}

void DetachPlaceholder(GstBin& outputBin, GstElement& tee) {
  live::Detach(outputBin, tee, {{}, check::bin::GetElement(outputBin, kPlaceholder, kBinError)});
}

void AddOutput(GstBin& outputBin, GstElement& tee, const Ptr<GstElement>& element) {
  const bool is_first = GetOutputs(outputBin).empty();
  if (is_first) {
    DetachPlaceholder(outputBin, tee);
  }
  try {
    live::Attach(outputBin, tee, {check::element::Make("queue", nullptr, kElementError), element});
  } catch (const live::Stopped&) {
    if (is_first) {
      AttachPlaceholder(outputBin, tee);
    }
    throw;
  }
  // The placeholder is still there if the last output refused to stop after it was finished.
  if (Contains(outputBin, kPlaceholder)) {
    DetachPlaceholder(outputBin, tee);
  }
}

// Removes the branch of an output from the list, and returns it.
live::Branch Take(std::vector<gstreamer::pipeline::Output>& outputs, const Ptr<GstElement>& element) {
  const auto found = std::find_if(outputs.begin(), outputs.end(),
                                  [&](const gstreamer::pipeline::Output& output) { return output.element == element; });
  if (found == outputs.end()) {
    throw std::runtime_error("Cannot remove an output that has not been added to the bin");
  }
  live::Branch branch{found->queue, found->element};
  outputs.erase(found);
  return branch;
}

void EraseOutput(GstBin& outputBin, GstElement& tee, const Ptr<GstElement>& element) {
  auto outputs = GetOutputs(outputBin);
  live::Detach(outputBin, tee, Take(outputs, element));
  if (outputs.empty()) {
    AttachPlaceholder(outputBin, tee);
  }
}

// Runs every step, even after one that fails, and keeps the first error.
class FirstError {
 public:
  template <typename Step>
  void Catch(const Step& step) {
    try {
      step();
    } catch (...) {
      if (!error_) {
        error_ = std::current_exception();
      }
    }
  }

  void Rethrow() const {
    if (error_) {
      std::rethrow_exception(error_);
    }
  }

 private:
  std::exception_ptr error_;
};

// A sink that never receives EOS. It keeps the output bin from posting EOS while outputs end one
// after the other, and from dropping the EOS messages of its outputs once all have ended. If all
// others have ended, its removal lets the bin post EOS.
class EndlessSink {
 public:
  explicit EndlessSink(GstBin& outputBin)
      : bin_(outputBin), sink_(check::element::Make("fakesink", "endless_output", kElementError)) {
    g_object_set(sink_.Get(), "async", FALSE, nullptr);
    const StateLock lock(*GST_ELEMENT(&bin_));
    Add(bin_, sink_);
    Sync(*sink_);
  }
  EndlessSink(const EndlessSink&) = delete;
  EndlessSink& operator=(const EndlessSink&) = delete;
  ~EndlessSink() {
    const StateLock lock(*GST_ELEMENT(&bin_));
    TakeOut(bin_, *sink_);
  }

 private:
  GstBin& bin_;
  Ptr<GstElement> sink_;
};

void CheckFinished(const std::vector<Ptr<GstElement>>& failed) {
  std::string names;
  for (const auto& output : failed) {
    names += (names.empty() ? "'" : ", '") + element::GetFullName(*output) + "'";
  }
  if (!names.empty()) {
    check::Fail(kBinError, "Failed to finish the output ", names, " in time");
  }
}

// Makes the change for each output, in the order given.
void ForEach(GstBin& outputBin, const std::vector<Ptr<GstElement>>& outputs,
             void (&change)(GstBin&, GstElement&, const Ptr<GstElement>&)) {
  const auto tee = GetTee(outputBin);
  try {
    for (const auto& element : outputs) {
      change(outputBin, *tee, element);
    }
  } catch (const live::Stopped&) {
    throw std::runtime_error("Cannot change the outputs because the pipeline is being stopped");
  }
}

}  // namespace

bool IsInitialized(GstBin& outputBin) noexcept {
  return Contains(outputBin, kTee);
}

void Initialize(GstBin& outputBin) {
  const auto placeholder = MakePlaceholder();
  Add(outputBin, placeholder);
  const auto tee = check::element::Make("tee", kTee, kElementError);
  // While the placeholder is exchanged for a branch, the tee has no linked pad. That must not end
  // the stream.
  g_object_set(tee.Get(), "allow-not-linked", TRUE, nullptr);
  Add(outputBin, tee);
  check::element::LinkElement(*tee, *placeholder, kElementError);
  const auto sink = GetSink(*tee);
  check::element::GhostPad(*GST_ELEMENT(&outputBin), "sink", *sink, kElementError);
}

std::vector<gstreamer::pipeline::Output> GetOutputs(GstBin& outputBin) {
  std::vector<gstreamer::pipeline::Output> outputs;
  for (const auto& pad : Collect<GstPad>(gst_element_iterate_src_pads(GetTee(outputBin).Get()))) {
    if (!gst_pad_is_linked(pad.Get())) {
      continue;
    }
    auto queue = check::pad::GetParentElement(*GetPeer(*pad), kPadError);
    if (element::GetName(*queue) != kPlaceholder) {
      auto element = Next(*queue);
      outputs.push_back({std::move(queue), std::move(element)});
    }
  }
  return outputs;
}

void AddOutputs(GstBin& outputBin, std::vector<Ptr<GstElement>> outputs) {
  if (std::find(outputs.begin(), outputs.end(), Ptr<GstElement>()) != outputs.end()) {
    throw std::invalid_argument("Cannot add an output that is null");
  }
  ForEach(outputBin, outputs, AddOutput);
}

void EraseOutputs(GstBin& outputBin, std::vector<Ptr<GstElement>> outputs) {
  ForEach(outputBin, outputs, EraseOutput);
}

void FinishOutputs(GstBin& outputBin, std::vector<Ptr<GstElement>> outputs, std::chrono::nanoseconds timeout) {
  const auto tee = GetTee(outputBin);
  auto others = GetOutputs(outputBin);
  std::vector<live::Branch> branches;
  branches.reserve(outputs.size());
  for (const auto& element : outputs) {
    branches.push_back(Take(others, element));
  }
  const EndlessSink endless(outputBin);
  if (others.empty()) {
    AttachPlaceholder(outputBin, *tee);
  }

  FirstError error;
  error.Catch([&] { CheckFinished(live::Finish(outputBin, branches, timeout)); });
  for (const auto& branch : branches) {
    error.Catch([&] { live::Detach(outputBin, *tee, branch); });
  }
  try {
    error.Rethrow();
  } catch (const live::Stopped&) {
    throw std::runtime_error("Cannot finish the outputs because the pipeline is being stopped");
  }
}

}  // namespace mox::gstreamer::bin::output

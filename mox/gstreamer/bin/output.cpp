#include "mox/gstreamer/bin/output.h"

#include "mox/gstreamer/bin/element.h"
#include "mox/gstreamer/bin/live/branch.h"
#include "mox/gstreamer/bin/live/change.h"
#include "mox/gstreamer/check/bin.h"
#include "mox/gstreamer/check/element.h"
#include "mox/gstreamer/check/pad.h"
#include "mox/gstreamer/iterator.h"
#include "mox/gstreamer/name.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace mox::gstreamer::bin::output {
namespace {

constexpr auto kTee = "output_tee";
constexpr auto kDummy = "dummy_output";

Ptr<GstElement> GetTee(GstBin& outputBin) {
  return check::bin::GetElement(outputBin, kTee, kBinError);
}

Ptr<GstElement> MakeDummy() {
  return check::element::Make("fakesink", kDummy, kElementError);
}

void AddOutput(GstBin& outputBin, GstElement& tee, const Ptr<GstElement>& element) {
  const bool is_first = GetOutputs(outputBin).empty();
  if (is_first) {
    live::Detach(outputBin, tee, {check::bin::GetElement(outputBin, kDummy, kBinError)});
  }
  try {
    live::Attach(outputBin, tee, {check::element::Make("queue", nullptr, kElementError), element});
  } catch (const live::Stopped&) {
    if (is_first) {
      live::Attach(outputBin, tee, {MakeDummy()});
    }
    throw;
  }
}

void EraseOutput(GstBin& outputBin, GstElement& tee, const Ptr<GstElement>& element) {
  const auto outputs = GetOutputs(outputBin);
  const auto found = std::find_if(outputs.begin(), outputs.end(),
                                  [&](const gstreamer::pipeline::Output& output) { return output.element == element; });
  if (found == outputs.end()) {
    throw std::runtime_error("Cannot remove an output that has not been added to the bin");
  }
  live::Detach(outputBin, tee, {found->queue, found->element});
  if (outputs.size() == 1) {
    live::Attach(outputBin, tee, {MakeDummy()});
  }
}

// Makes the change for each output, in the order given.
void Change(GstBin& outputBin, const std::vector<Ptr<GstElement>>& outputs,
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
  return Holds(outputBin, kTee);
}

void Initialize(GstBin& outputBin) {
  const auto dummy = MakeDummy();
  Add(outputBin, dummy);
  const auto tee = check::element::Make("tee", kTee, kElementError);
  // Between the placeholder and a branch the tee has no linked pad, which must not end the stream.
  g_object_set(tee.Get(), "allow-not-linked", TRUE, nullptr);
  Add(outputBin, tee);
  check::element::LinkElement(*tee, *dummy, kElementError);
  const auto sink = check::element::GetPad(*tee, "sink", kElementError);
  check::element::GhostPad(*GST_ELEMENT(&outputBin), "sink", *sink, kElementError);
}

std::vector<gstreamer::pipeline::Output> GetOutputs(GstBin& outputBin) {
  std::vector<gstreamer::pipeline::Output> outputs;
  for (const auto& pad : Collect<GstPad>(gst_element_iterate_src_pads(GetTee(outputBin).Get()))) {
    if (!gst_pad_is_linked(pad.Get())) {
      continue;
    }
    auto queue = check::pad::GetParentElement(*check::pad::GetPeer(*pad, kPadError), kPadError);
    if (element::GetName(*queue) == kDummy) {
      return {};
    }
    auto element = Next(*queue);
    outputs.push_back({std::move(queue), std::move(element)});
  }
  return outputs;
}

void AddOutputs(GstBin& outputBin, std::vector<Ptr<GstElement>> outputs) {
  if (std::find(outputs.begin(), outputs.end(), Ptr<GstElement>()) != outputs.end()) {
    throw std::invalid_argument("Cannot add an output that is null");
  }
  Change(outputBin, outputs, AddOutput);
}

void EraseOutputs(GstBin& outputBin, std::vector<Ptr<GstElement>> outputs) {
  Change(outputBin, outputs, EraseOutput);
}

}  // namespace mox::gstreamer::bin::output

#include "mox_live/player.h"

#include "mox/gstreamer/bin/filter.h"
#include "mox/gstreamer/bin/pipeline.h"
#include "mox/gstreamer/name.h"
#include "mox_live/description.h"
#include "mox_live/graph.h"
#include "mox_live/message.h"
#include "mox_live/property.h"

#include <chrono>
#include <iostream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <utility>
#include <vector>

namespace mox_live {
namespace {

using mox::gstreamer::Pipeline;
using mox::gstreamer::element::GetName;

// The time that an encoder and a muxer may take to write the end of a recording.
constexpr std::chrono::seconds kFinishTimeout(10);

// Checks that an output starts before it is attached. A first output that cannot start would leave
// the pipeline without outputs.
void TryOut(GstElement& output) {
  const bool starts = gst_element_set_state(&output, GST_STATE_PAUSED) != GST_STATE_CHANGE_FAILURE;
  gst_element_set_state(&output, GST_STATE_NULL);
  if (!starts) {
    throw std::runtime_error(GetName(output) + " does not start");
  }
}

const char* ToText(Pipeline::State state) {
  switch (state) {
    case Pipeline::State::Stopped:
      return "stopped";
    case Pipeline::State::Starting:
      return "starting";
    case Pipeline::State::Playing:
      return "playing";
    case Pipeline::State::Stopping:
      return "stopping";
  }
  return "unknown";
}

}  // namespace

Player::Player(Events& events) : events_(events), pipeline_(1, "live") {
  on_error_ = pipeline_.GetBus().Bind(GST_MESSAGE_ERROR, [this](const GstMessage& message) {
    std::cerr << "mox-live: " + DescribeFailure(message) + '\n';
    events_.Fail();
  });
  on_warning_ = pipeline_.GetBus().Bind(GST_MESSAGE_WARNING, [](const GstMessage& message) {
    std::cerr << "mox-live: " + DescribeFailure(message) + '\n';
  });
  on_end_of_stream_ = pipeline_.GetBus().Bind(GST_MESSAGE_EOS, [this](const GstMessage& message) {
    report_.Say("end of stream");
    events_.EndStream(GST_MESSAGE_SEQNUM(&message));
  });
}

void Player::SetInput(const std::string& description) {
  if (description == "none") {
    return report_.Time("input none", [&] { pipeline_.SetInput({}); });
  }
  Exchange(MakeElement(description, Role::Input));
}

void Player::AddNextInput(const std::string& description) {
  next_inputs_.push_back(MakeElement(description, Role::Input));
  if (stream_ == Stream::Ended) {
    PlayNextInput();
  }
}

void Player::AddFilter(const std::string& description) {
  const auto filter = MakeElement(description, Role::Filter);
  CheckNameIsFree(*filter);
  report_.Time(
      "filter add " + GetName(*filter), [&] { pipeline_.AddFilters({filter}); }, [&] { return GetFilterGraph(); });
}

void Player::EraseFilter(const std::string& name) {
  for (const auto& filter : pipeline_.GetFilters()) {
    if (GetName(*filter) == name) {
      return report_.Time(
          "filter erase " + name, [&] { pipeline_.EraseFilters({filter}); }, [&] { return GetFilterGraph(); });
    }
  }
  throw std::runtime_error("no filter '" + name + "' in " + GetFilterGraph());
}

void Player::AddOutput(const std::string& description) {
  const auto output = MakeElement(description, Role::Output);
  CheckNameIsFree(*output);
  TryOut(*output);
  const auto name = GetName(*output);
  auto frames = std::make_unique<FrameCounter>(FindVideoPad(*output, GST_PAD_SINK));
  report_.Time("output add " + name, [&] { pipeline_.AddOutputs({output}); });
  report_.Add("output " + name, std::move(frames));
}

void Player::EraseOutput(const std::string& name) {
  const auto output = FindOutput(name);
  report_.Time("output erase " + name, [&] { pipeline_.EraseOutputs({output}); });
}

void Player::FinishOutput(const std::string& name) {
  const auto output = FindOutput(name);
  report_.Time("output finish " + name, [&] { pipeline_.FinishOutputs({output}, kFinishTimeout); });
}

void Player::FinishOutputs() {
  std::vector<Element> outputs;
  for (const auto& output : pipeline_.GetOutputs()) {
    outputs.push_back(output.element);
  }
  if (pipeline_.GetEnable() && stream_ != Stream::Ended && !outputs.empty()) {
    report_.Time("finish all outputs", [&] { pipeline_.FinishOutputs(outputs, kFinishTimeout); });
  }
}

void Player::SetProperty(const std::string& argument) {
  std::istringstream text(argument);
  std::string name;
  std::string property;
  std::string value;
  std::getline(text >> name >> property >> std::ws, value);
  if (value.empty()) {
    throw std::runtime_error("use: set ELEMENT PROPERTY VALUE");
  }
  const auto element = Find(name);
  std::string now;
  report_.Time(
      "set " + name + " " + property, [&] { now = mox_live::SetProperty(*element, property, value); },
      [&] { return now; });
}

void Player::Describe(const std::string& name) {
  const auto element = Find(name);
  GSignalQuery query{};
  g_signal_query(g_signal_lookup("describe", G_OBJECT_TYPE(element.Get())), &query);
  if (query.return_type != G_TYPE_STRING || query.n_params != 0) {
    throw std::runtime_error("'" + name + "' does not describe itself");
  }
  char* json = nullptr;
  g_signal_emit(element.Get(), query.signal_id, 0, &json);
  const std::unique_ptr<char, decltype(&g_free)> owned(json, g_free);
  std::cout << (json != nullptr ? json : "") << std::endl;
}

void Player::DrawGraph(const std::string& file) {
  WriteGraph(*GST_BIN(&pipeline_.Get()), file);
  report_.Say("graph " + file);
}

void Player::Start(const std::string& /*none*/) {
  ExpectStream();
  report_.Time("start", [&] { pipeline_.SetEnable(true); });
}

void Player::Stop(const std::string& /*none*/) {
  report_.Time("stop", [&] { pipeline_.SetEnable(false); });
}

void Player::Show(const std::string& /*none*/) {
  const auto input = pipeline_.GetInput();
  std::ostringstream text;  // written at once, because the bus reader writes lines too
  text << "state    " << ToText(pipeline_.GetState()) << (pipeline_.GetEnable() ? ", enabled" : ", not enabled")
       << "\ninput    " << (input ? GetName(*input) : "none") << "\nfilters  " << GetFilterGraph() << '\n';
  for (const auto& output : pipeline_.GetOutputs()) {
    const auto label = "output " + GetName(*output.element);
    text << label << ": " << report_.GetFrames(label) << '\n';
  }
  std::cout << text.str() << std::flush;
}

void Player::Wait(const std::string& seconds) {
  std::istringstream text(seconds);
  double value = 0;
  if (!(text >> value) || !text.eof() || value < 0) {
    throw std::runtime_error("'" + seconds + "' is not a number of seconds");
  }
  using Clock = std::chrono::steady_clock;
  const auto deadline =
      Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(value));
  auto event = Events::Event::Readable;
  while (stream_ == Stream::Flows && event != Events::Event::Timeout && event != Events::Event::Interrupt) {
    event = Await(-1, deadline);
  }
}

bool Player::WaitForFile(int file) {
  for (;;) {
    const auto event = Await(file, std::nullopt);
    if (event == Events::Event::Readable || event == Events::Event::Interrupt) {
      return event == Events::Event::Readable;
    }
  }
}

// Returns the next event, after acting on those of the stream.
Events::Event Player::Await(int file, Events::Deadline deadline) {
  const auto event = events_.Await(file, deadline);
  if (event == Events::Event::Error) {
    stream_ = Stream::Failed;
  } else if (event == Events::Event::StreamEnded) {
    stream_ = Stream::Ended;
    if (!next_inputs_.empty()) {
      PlayNextInput();
    }
  }
  return event;
}

void Player::ExpectStream() {
  stream_ = Stream::Flows;
  events_.ExpectStream();
}

void Player::Exchange(const Element& input) {
  CheckNameIsFree(*input);
  const auto label = "input " + GetName(*input);
  auto frames = std::make_unique<FrameCounter>(FindVideoPad(*input, GST_PAD_SRC));
  ExpectStream();
  report_.Time(label, [&] { pipeline_.SetInput(input); });
  report_.Add(label, std::move(frames));
}

void Player::PlayNextInput() {
  const auto input = next_inputs_.front();
  next_inputs_.pop_front();
  Exchange(input);
}

Player::Element Player::FindOutput(const std::string& name) {
  for (const auto& output : pipeline_.GetOutputs()) {
    if (GetName(*output.element) == name) {
      return output.element;
    }
  }
  throw std::runtime_error("no output '" + name + "'");
}

Player::Element Player::Find(const std::string& name) {
  Element element(gst_bin_get_by_name(GST_BIN(&pipeline_.Get()), name.c_str()));
  if (!element) {
    throw std::runtime_error("no element '" + name + "'");
  }
  return element;
}

void Player::CheckNameIsFree(GstElement& element) {
  const Element other(gst_bin_get_by_name(GST_BIN(&pipeline_.Get()), GST_ELEMENT_NAME(&element)));
  if (other) {
    throw std::runtime_error("the name '" + GetName(element) + "' is taken");
  }
}

std::string Player::GetFilterGraph() {
  return mox::gstreamer::bin::filter::GetGraph(mox::gstreamer::bin::pipeline::GetFilterBin(*GST_BIN(&pipeline_.Get())));
}

}  // namespace mox_live

#include "mox_live/live.h"

#include "mox/gstreamer/bin/filter.h"
#include "mox/gstreamer/bin/pipeline.h"
#include "mox/gstreamer/name.h"
#include "mox_live/description.h"
#include "mox_live/property.h"

#include <algorithm>
#include <iomanip>
#include <iostream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace mox_live {
namespace {

using mox::gstreamer::Pipeline;
using mox::gstreamer::Ptr;
using mox::gstreamer::element::GetName;

// An output that cannot start is found out before it is attached, so that its failure leaves the outputs as they are.
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

std::string ToText(const Frames& frames) {
  return std::to_string(frames.seen) + " frames, " + std::to_string(frames.lost) + " lost, " +
         std::to_string(frames.repeated) + " repeated";
}

std::unique_ptr<FrameCounter> CountFrames(GstElement& element, const char* pad) {
  return std::make_unique<FrameCounter>(Ptr<GstPad>(gst_element_get_static_pad(&element, pad)));
}

std::string GetGraph(Pipeline& pipeline) {
  return mox::gstreamer::bin::filter::GetGraph(mox::gstreamer::bin::pipeline::GetFilterBin(*GST_BIN(&pipeline.Get())));
}

}  // namespace

Live::Live() : pipeline_(1, "live") {
  // The pipeline's own reader takes the messages off the bus; a handler on the bus sees them before.
  const Ptr<GstBus> bus(gst_pipeline_get_bus(&pipeline_.Get()));
  gst_bus_set_sync_handler(bus.Get(), OnMessage, this, nullptr);
}

const std::vector<Live::Command>& Live::Commands() {
  static const std::vector<Command> commands = {
      {"input", " DESCRIPTION", "exchange the input; 'input none' removes it from a stopped pipeline", &Live::SetInput},
      {"filter add", " DESCRIPTION", "append a filter to the chain", &Live::AddFilter},
      {"filter erase", " NAME", "take a filter out of the chain", &Live::EraseFilter},
      {"output add", " DESCRIPTION", "attach an output", &Live::AddOutput},
      {"output erase", " NAME", "detach an output", &Live::EraseOutput},
      {"set", " ELEMENT PROPERTY VALUE", "set a property, as of a filter that is playing", &Live::Set},
      {"describe", " ELEMENT", "show the settings of an element of the framework as JSON", &Live::Describe},
      {"start", "", "start the pipeline", &Live::Start},
      {"stop", "", "stop the pipeline", &Live::Stop},
      {"show", "", "show the state, the input, the filters and the outputs", &Live::Show},
      {"wait", " SECONDS", "wait that long, or until the stream ends", &Live::Wait},
      {"quit", "", "end the program, as the end of standard input does", &Live::Quit},
  };
  return commands;
}

void Live::WriteCommands(std::ostream& stream) {
  for (const auto& command : Commands()) {
    stream << "  " << std::left << std::setw(28) << std::string(command.name) + command.argument << command.help
           << '\n';
  }
}

void Live::Run(const std::string& line) {
  constexpr auto blank = " \t\r";
  const auto begin = line.find_first_not_of(blank);
  if (begin == std::string::npos || line[begin] == '#') {
    return;
  }
  const std::string text = line.substr(begin, line.find_last_not_of(blank) + 1 - begin);
  std::string known;
  for (const auto& command : Commands()) {
    const std::string name = command.name;
    if (text.compare(0, name.size(), name) == 0 && (text.size() == name.size() || text[name.size()] == ' ')) {
      const auto argument = text.find_first_not_of(' ', name.size());
      if ((argument == std::string::npos) != (*command.argument == '\0')) {
        throw std::runtime_error("use: " + name + command.argument);
      }
      return (this->*command.run)(argument == std::string::npos ? "" : text.substr(argument));
    }
    known += (known.empty() ? "" : ", ") + name;
  }
  throw std::runtime_error("unknown command '" + text + "'; the commands are: " + known);
}

void Live::AddFilter(const std::string& description) {
  const auto filter = MakeElement(description, Role::Filter);
  CheckNameIsFree(*filter);
  Apply(
      "filter add " + GetName(*filter), [&] { pipeline_.AddFilters({filter}); }, [&] { return GetGraph(pipeline_); });
}

void Live::EraseFilter(const std::string& name) {
  for (const auto& filter : pipeline_.GetFilters()) {
    if (GetName(*filter) == name) {
      return Apply(
          "filter erase " + name, [&] { pipeline_.EraseFilters({filter}); }, [&] { return GetGraph(pipeline_); });
    }
  }
  throw std::runtime_error("no filter '" + name + "' in " + GetGraph(pipeline_));
}

void Live::AddOutput(const std::string& description) {
  const auto output = MakeElement(description, Role::Output);
  CheckNameIsFree(*output);
  TryOut(*output);
  const auto label = "output " + GetName(*output);
  auto frames = CountFrames(*output, "sink");
  Apply("output add " + GetName(*output), [&] { pipeline_.AddOutputs({output}); });
  counted_.push_back({label, std::move(frames)});
}

void Live::EraseOutput(const std::string& name) {
  for (const auto& output : pipeline_.GetOutputs()) {
    if (GetName(*output.element) == name) {
      return Apply("output erase " + name, [&] { pipeline_.EraseOutputs({output.element}); });
    }
  }
  throw std::runtime_error("no output '" + name + "'");
}

void Live::SetInput(const std::string& description) {
  if (description == "none") {
    return Apply("input none", [&] { pipeline_.SetInput({}); });
  }
  const auto input = MakeElement(description, Role::Input);
  CheckNameIsFree(*input);
  const auto label = "input " + GetName(*input);
  auto frames = CountFrames(*input, "src");
  ExpectStream();
  Apply(label, [&] { pipeline_.SetInput(input); });
  counted_.push_back({label, std::move(frames)});
}

void Live::Start(const std::string& /*none*/) {
  ExpectStream();
  Apply("start", [&] { pipeline_.SetEnable(true); });
}

void Live::Stop(const std::string& /*none*/) {
  Apply("stop", [&] { pipeline_.SetEnable(false); });
}

void Live::Set(const std::string& argument) {
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
  Apply(
      "set " + name + " " + property, [&] { now = SetProperty(*element, property, value); }, [&] { return now; });
}

void Live::Describe(const std::string& name) {
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

void Live::Show(const std::string& /*none*/) {
  const auto input = pipeline_.GetInput();
  std::cout << "state    " << ToText(pipeline_.GetState()) << (pipeline_.GetEnable() ? ", enabled" : ", not enabled")
            << "\ninput    " << (input ? GetName(*input) : "none") << "\nfilters  " << GetGraph(pipeline_) << '\n';
  for (const auto& output : pipeline_.GetOutputs()) {
    // A name may have been used before; the last is the one attached.
    const auto label = "output " + GetName(*output.element);
    const auto counted =
        std::find_if(counted_.rbegin(), counted_.rend(), [&](auto& one) { return one.label == label; });
    std::cout << label << ": " << ToText(counted->frames->Get()) << '\n';
  }
  std::cout << std::flush;
}

void Live::ExpectStream() {
  const std::lock_guard<std::mutex> lock(mutex_);
  ended_ = false;
}

void Live::Wait(const std::string& seconds) {
  std::istringstream text(seconds);
  double value = 0;
  if (!(text >> value) || !text.eof() || value < 0) {
    throw std::runtime_error("'" + seconds + "' is not a number of seconds");
  }
  std::unique_lock<std::mutex> lock(mutex_);
  stream_ended_.wait_for(lock, std::chrono::duration<double>(value), [&] { return ended_; });
}

void Live::Quit(const std::string& /*none*/) {
  quit_ = true;
}

void Live::Apply(const std::string& label, const std::function<void()>& change,
                 const std::function<std::string()>& result) {
  const auto begin = std::chrono::steady_clock::now();
  change();
  const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - begin;
  changes_.push_back({label, took.count()});
  std::ostringstream text;
  text << label << ": " << std::fixed << std::setprecision(1) << took.count() << " ms";
  if (result) {
    text << ", now " << result();
  }
  Say(text.str());
}

void Live::Say(const std::string& text) const {
  const std::chrono::duration<double> since = std::chrono::steady_clock::now() - begin_;
  std::ostringstream line;
  line << std::fixed << std::setprecision(3) << std::setw(8) << since.count() << " s  " << text << '\n';
  std::cout << line.str() << std::flush;
}

Ptr<GstElement> Live::Find(const std::string& name) {
  Ptr<GstElement> element(gst_bin_get_by_name(GST_BIN(&pipeline_.Get()), name.c_str()));
  if (!element) {
    throw std::runtime_error("no element '" + name + "'");
  }
  return element;
}

void Live::CheckNameIsFree(GstElement& element) {
  const Ptr<GstElement> other(gst_bin_get_by_name(GST_BIN(&pipeline_.Get()), GST_ELEMENT_NAME(&element)));
  if (other) {
    throw std::runtime_error("the name '" + GetName(element) + "' is taken");
  }
}

GstBusSyncReply Live::OnMessage(GstBus* /*bus*/, GstMessage* message, gpointer self) noexcept {
  auto& live = *static_cast<Live*>(self);
  if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
    GError* error = nullptr;
    gst_message_parse_error(message, &error, nullptr);
    const std::unique_ptr<GError, decltype(&g_error_free)> owned(error, g_error_free);
    std::cerr << std::string("mox-live: ") + GST_MESSAGE_SRC_NAME(message) + ": " + error->message + '\n';
  } else if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS) {
    live.Say("end of stream");
  } else {
    return GST_BUS_PASS;
  }
  {
    const std::lock_guard<std::mutex> lock(live.mutex_);
    live.ended_ = true;
  }
  live.stream_ended_.notify_one();
  return GST_BUS_PASS;
}

void Live::WriteReport(std::ostream& stream) const {
  stream << '\n' << std::left << std::setw(32) << "change" << std::right << std::setw(10) << "ms" << '\n';
  for (const auto& change : changes_) {
    stream << std::left << std::setw(32) << change.label << std::right << std::setw(10) << std::fixed
           << std::setprecision(1) << change.milliseconds << '\n';
  }
  stream << '\n'
         << std::left << std::setw(32) << "frames" << std::right << std::setw(10) << "seen" << std::setw(10) << "lost"
         << std::setw(10) << "repeated" << '\n';
  for (const auto& [label, counter] : counted_) {
    const Frames frames = counter->Get();
    stream << std::left << std::setw(32) << label << std::right << std::setw(10) << frames.seen << std::setw(10)
           << frames.lost << std::setw(10) << frames.repeated << '\n';
  }
  stream << std::flush;
}

}  // namespace mox_live

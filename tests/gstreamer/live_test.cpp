#include "tests/gstreamer/live.h"

#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

using namespace live;  // NOLINT(google-build-using-namespace)
using LiveFilters = live::Test;

// Changes with each of the given filters in and out, one right after the other.
void ChangeFilters(Stream& stream, const std::vector<const char*>& factories, int changes) {
  Elements filters;
  for (const char* factory : factories) {
    filters.push_back(Make(factory));
  }
  for (int i = 0; i < changes / 2; ++i) {
    const auto& filter = filters[static_cast<std::size_t>(i) % filters.size()];
    stream.pipeline.AddFilters({filter});
    stream.pipeline.EraseFilters({filter});
  }
}

TEST_F(LiveFilters, ThousandChangesBackToBackLoseNothing) {
  Stream stream;
  stream.Play();
  Within(std::chrono::seconds(100), "a change", [&] { ChangeFilters(stream, {"identity", "queue"}, 1000); });
  stream.watch.AwaitFrames(100);
  stream.watch.ExpectWhole();
  EXPECT_EQ(stream.Graph(), "[]");
}

TEST_F(LiveFilters, Threads) {
  Stream stream;
  stream.pipeline.AddFilters({Make("queue", "standing")});
  stream.Play();
  Within(std::chrono::seconds(100), "a change", [&] {
    std::vector<std::thread> callers;
    for (int i = 0; i < 4; ++i) {
      callers.emplace_back([&] { ChangeFilters(stream, {"identity", "queue"}, 250); });
    }
    for (auto& caller : callers) {
      caller.join();
    }
  });
  stream.watch.AwaitFrames(100);
  stream.watch.ExpectWhole();
  EXPECT_EQ(stream.Graph(), "[standing]");
}

TEST_F(LiveFilters, Paced) {
  Stream stream(true);
  stream.Play();
  Within(std::chrono::seconds(100), "a change", [&] { ChangeFilters(stream, {"identity", "queue"}, 1000); });
  stream.watch.AwaitFrames(10);
  stream.watch.ExpectWhole();
}

TEST_F(LiveFilters, OtherFormatsRenegotiate) {
  Stream stream;
  stream.Play();
  Within(std::chrono::seconds(100), "a change", [&] { ChangeFilters(stream, {"videoflip", "edgetv"}, 600); });
  stream.watch.AwaitFrames(100);
  std::cerr << stream.watch.Lost() << "\n";
  stream.watch.ExpectWhole(600);
}

TEST_F(LiveFilters, Starting) {
  for (int i = 0; i < 20; ++i) {
    Stream stream(i % 2 == 0);
    stream.pipeline.SetEnable(true);
    Within(std::chrono::seconds(20), "a change", [&] { ChangeFilters(stream, {"identity", "queue", "videoflip"}, 6); });
    stream.watch.AwaitFrames(3);
    stream.watch.ExpectWhole(6);
  }
}

TEST_F(LiveFilters, Outputs) {
  Stream stream;
  stream.Play();
  Within(std::chrono::seconds(200), "a change", [&] {
  for (int i = 0; i < 1000; ++i) {
    Watch other(MakeSink());
    stream.pipeline.AddOutputs({other.Element()});
    if (i % 10 == 0) other.AwaitFrames(3);
    stream.pipeline.EraseOutputs({other.Element()});
    other.ExpectWhole();
  }
  });
  stream.watch.AwaitFrames(100);
  stream.watch.ExpectWhole();
}

TEST_F(LiveFilters, FirstLast) {
  Stream stream;
  stream.Play();
  Within(std::chrono::seconds(200), "a change", [&] {
  for (int i = 0; i < 1000; ++i) {
    stream.pipeline.EraseOutputs({stream.watch.Element()});
    stream.watch.Restart();
    stream.pipeline.AddOutputs({stream.watch.Element()});
    if (i % 10 == 0) stream.watch.AwaitFrames(3);
  }
  });
  stream.watch.AwaitFrames(100);
  stream.watch.ExpectWhole();
}

TEST_F(LiveFilters, Inputs) {
  Stream stream;
  stream.Play();
  for (int i = 0; i < 100; ++i) {
    stream.watch.Restart();
    stream.pipeline.SetInput(MakeSource(i % 3 == 0));
    stream.watch.Restart();
    stream.watch.AwaitFrames(3);
  }
}

}  // namespace
namespace {
TEST_F(LiveFilters, Fails) {
  Stream stream;
  const auto filter = Make("identity", "kept");
  stream.pipeline.AddFilters({filter});
  stream.Play();
  const auto tell = [&](auto f) { try { f(); std::cerr << "no error\n"; } catch (const std::exception& e) { std::cerr << e.what() << "\n"; } 
  std::cerr << stream.Graph() << " " << GST_BIN(&stream.FilterBin())->numchildren << "\n"; stream.watch.AwaitFrames(100); stream.watch.ExpectWhole(1); };
  tell([&]{ stream.pipeline.EraseFilters({Make("identity")}); });
  tell([&]{ stream.pipeline.AddFilters({filter}); });
  tell([&]{ stream.pipeline.AddFilters({Make("queue"), Make("audioconvert")}); });
  tell([&]{ stream.pipeline.AddFilters({Make("videoflip"), Parse("capsfilter caps=video/x-raw,width=32")}); });
  tell([&]{ stream.pipeline.AddFilters({Make("videoscale"), Parse("capsfilter caps=video/x-raw,width=32")}); });
  tell([&]{ stream.pipeline.AddOutputs({Parse("capsfilter caps=video/x-raw,width=64 ! fakesink")}); });
  tell([&]{ stream.pipeline.AddOutputs({Make("audioconvert")}); });
  tell([&]{ stream.pipeline.AddOutputs({Parse("capsfilter caps=video/x-raw,format=RGB ! fakesink")}); });
  tell([&]{ stream.pipeline.AddOutputs({Parse("capsfilter caps=video/x-raw,format=I420 ! fakesink")}); });
  stream.watch.AwaitFrames(100);
}
}

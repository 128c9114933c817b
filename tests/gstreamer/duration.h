#ifndef TESTS_GSTREAMER_DURATION_H
#define TESTS_GSTREAMER_DURATION_H

#include <filesystem>

#include <gst/gst.h>
#include <gst/pbutils/pbutils.h>

/** Returns the duration of a file in seconds, as GStreamer's discoverer reads it; 0 if it cannot. */
inline double DurationOf(const std::filesystem::path& file) {
  gst_init(nullptr, nullptr);
  GstDiscoverer* discoverer = gst_discoverer_new(20 * GST_SECOND, nullptr);
  GstDiscovererInfo* info = gst_discoverer_discover_uri(discoverer, ("file://" + file.string()).c_str(), nullptr);
  const bool readable = info != nullptr && gst_discoverer_info_get_result(info) == GST_DISCOVERER_OK;
  const GstClockTime duration = readable ? gst_discoverer_info_get_duration(info) : 0;
  g_clear_object(&discoverer);
  g_clear_object(&info);
  return static_cast<double>(duration) / GST_SECOND;
}

#endif

#include "mox_live/description.h"

#include <memory>
#include <stdexcept>

namespace mox_live {
namespace {

using mox::gstreamer::Ptr;

void AddGhostPad(GstElement& element, const char* name, GstPadDirection direction) {
  const Ptr<GstPad> own(gst_element_get_static_pad(&element, name));
  if (own || !GST_IS_BIN(&element)) {
    return;
  }
  const Ptr<GstPad> inner(gst_bin_find_unlinked_pad(GST_BIN(&element), direction));
  if (inner) {
    gst_element_add_pad(&element, gst_ghost_pad_new(name, inner.Get()));
  }
}

void CheckPad(GstElement& element, const char* name) {
  const Ptr<GstPad> pad(gst_element_get_static_pad(&element, name));
  if (!pad) {
    throw std::runtime_error(std::string(GST_ELEMENT_NAME(&element)) + " has no pad '" + name + "'");
  }
  const Ptr<GstCaps> video(gst_caps_from_string("video/x-raw(ANY)"));
  const Ptr<GstCaps> common(gst_pad_query_caps(pad.Get(), video.Get()));
  if (gst_caps_is_empty(common.Get()) != FALSE) {
    throw std::runtime_error(std::string(GST_ELEMENT_NAME(&element)) + " has no raw video on its pad '" + name + "'");
  }
}

}  // namespace

Ptr<GstElement> MakeElement(const std::string& description, Role role) {
  // The pads are ghosted here: the parser would also ghost a sink pad that is still to be linked inside the bin, as
  // that of a converter behind a decoder.
  constexpr auto flags = static_cast<GstParseFlags>(GST_PARSE_FLAG_FATAL_ERRORS | GST_PARSE_FLAG_PLACE_IN_BIN |
                                                    GST_PARSE_FLAG_NO_SINGLE_ELEMENT_BINS);
  GError* error = nullptr;
  Ptr<GstElement> element(gst_parse_bin_from_description_full(description.c_str(), FALSE, nullptr, flags, &error));
  if (error != nullptr) {
    const std::unique_ptr<GError, decltype(&g_error_free)> owned(error, g_error_free);
    throw std::runtime_error(error->message);
  }
  if (role != Role::Input) {
    AddGhostPad(*element, "sink", GST_PAD_SINK);
    CheckPad(*element, "sink");
  }
  if (role != Role::Output) {
    AddGhostPad(*element, "src", GST_PAD_SRC);
    CheckPad(*element, "src");
  }
  return element;
}

}  // namespace mox_live

#include "mox_live/description.h"

#include "mox/gstreamer/name.h"

#include <cstring>
#include <memory>
#include <stdexcept>

namespace mox_live {
namespace {

using mox::gstreamer::Ptr;
using mox::gstreamer::element::GetName;

Ptr<GstCaps> MakeVideoCaps() {
  return Ptr<GstCaps>(gst_caps_from_string("video/x-raw(ANY)"));
}

GList* GetPads(GstElement& element, GstPadDirection direction) {
  return direction == GST_PAD_SRC ? element.srcpads : element.sinkpads;
}

void AddGhostPad(GstElement& element, const char* name, GstPadDirection direction) {
  if (GetPads(element, direction) != nullptr || !GST_IS_BIN(&element)) {
    return;
  }
  const Ptr<GstPad> inner(gst_bin_find_unlinked_pad(GST_BIN(&element), direction));
  if (inner) {
    gst_element_add_pad(&element, gst_ghost_pad_new(name, inner.Get()));
  }
}

// Returns true if a link can request a sink pad for raw video, for example of a mixer.
bool HasVideoRequestPad(GstElement& element) {
  const auto video = MakeVideoCaps();
  for (const GList* item = gst_element_get_pad_template_list(&element); item != nullptr; item = item->next) {
    auto* const pad = GST_PAD_TEMPLATE(item->data);
    const Ptr<GstCaps> caps(gst_pad_template_get_caps(pad));
    if (GST_PAD_TEMPLATE_DIRECTION(pad) == GST_PAD_SINK && GST_PAD_TEMPLATE_PRESENCE(pad) == GST_PAD_REQUEST &&
        gst_caps_can_intersect(caps.Get(), video.Get()) != FALSE) {
      return true;
    }
  }
  return false;
}

}  // namespace

Ptr<GstElement> MakeElement(const std::string& description, Role role) {
  // Ghost the pads here. The parser would also ghost a sink pad that is linked inside the bin
  // later, for example that of a converter downstream of a decoder.
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
    const bool has_request_pad = role == Role::Filter && HasVideoRequestPad(*element);
    if (!has_request_pad && !FindVideoPad(*element, GST_PAD_SINK)) {
      throw std::runtime_error(GetName(*element) + " has no sink pad for raw video");
    }
  }
  if (role != Role::Output) {
    AddGhostPad(*element, "src", GST_PAD_SRC);
    const auto pad = FindVideoPad(*element, GST_PAD_SRC);
    if (!pad || (role == Role::Filter && std::strcmp(GST_PAD_NAME(pad.Get()), "src") != 0)) {
      throw std::runtime_error(GetName(*element) + " has no source pad 'src' for raw video");
    }
  }
  return element;
}

Ptr<GstPad> FindVideoPad(GstElement& element, GstPadDirection direction) {
  const auto video = MakeVideoCaps();
  for (const GList* item = GetPads(element, direction); item != nullptr; item = item->next) {
    auto* const pad = GST_PAD(item->data);
    const Ptr<GstCaps> common(gst_pad_query_caps(pad, video.Get()));
    if (gst_caps_is_empty(common.Get()) == FALSE) {
      return Ptr<GstPad>(GST_PAD(gst_object_ref(pad)));
    }
  }
  return {};
}

}  // namespace mox_live

#ifndef TESTS_GSTREAMER_ELEMENTS_H
#define TESTS_GSTREAMER_ELEMENTS_H

#include "mox/gstreamer/check/ptr.h"
#include "mox/gstreamer/name.h"

#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include <gst/gst.h>

// What is in a bin, how it is linked and who holds it.
namespace elements {

using mox::gstreamer::Ptr;

/** The text of the error that the function raises. */
template <typename Error = std::runtime_error, typename Function>
std::string ErrorOf(const Function& function) {
  try {
    function();
  } catch (const Error& error) {
    return error.what();
  }
  return "no error";
}

/** How many references there are to an object. */
template <typename T>
int References(const Ptr<T>& object) {
  if constexpr (std::is_base_of_v<mox::gstreamer::MiniObjectReference<T>, mox::gstreamer::Reference<T>>) {
    return GST_MINI_OBJECT_REFCOUNT_VALUE(object.Get());
  } else {
    return static_cast<int>(GST_OBJECT_REFCOUNT_VALUE(object.Get()));
  }
}

/** Tells whether an object is still there, without holding it. */
class Life {
 public:
  explicit Life(gpointer object) { g_weak_ref_init(&object_, object); }
  Life(const Life&) = delete;
  Life& operator=(const Life&) = delete;
  ~Life() { g_weak_ref_clear(&object_); }

  bool IsOver() { return !Ptr<GstObject>(static_cast<GstObject*>(g_weak_ref_get(&object_))); }

 private:
  GWeakRef object_{};
};

inline std::string NameOf(const Ptr<GstElement>& element) {
  return mox::gstreamer::element::GetName(*element);
}

inline bool IsIn(GstBin& bin, const Ptr<GstElement>& element) {
  return GST_OBJECT_PARENT(element.Get()) == GST_OBJECT_CAST(&bin);
}

/** The children of a bin, each as "name (factory)". */
inline std::vector<std::string> ChildrenOf(GstBin& bin) {
  std::vector<std::string> children;
  for (const GList* child = bin.children; child != nullptr; child = child->next) {
    auto* const factory = gst_element_get_factory(GST_ELEMENT(child->data));
    children.push_back(std::string(GST_OBJECT_NAME(child->data)) + " (" +
                       (factory != nullptr ? GST_OBJECT_NAME(factory) : "none") + ")");
  }
  return children;
}

/** A pad as "element.pad", or "nothing". */
inline std::string Text(const Ptr<GstPad>& pad) {
  return pad ? std::string(GST_OBJECT_NAME(GST_OBJECT_PARENT(pad.Get()))) + "." + GST_OBJECT_NAME(pad.Get())
             : "nothing";
}

/** What a static pad is linked to. */
inline std::string PeerOf(GstElement& element, const char* name) {
  const Ptr<GstPad> pad(gst_element_get_static_pad(&element, name));
  return Text(Ptr<GstPad>(gst_pad_get_peer(pad.Get())));
}

/** The pads of a bin, each as "name > what it forwards to". */
inline std::vector<std::string> GhostPadsOf(GstBin& bin) {
  std::vector<std::string> pads;
  for (const GList* pad = GST_ELEMENT(&bin)->pads; pad != nullptr; pad = pad->next) {
    const Ptr<GstPad> target(gst_ghost_pad_get_target(GST_GHOST_PAD(pad->data)));
    pads.push_back(std::string(GST_OBJECT_NAME(pad->data)) + " > " + Text(target));
  }
  return pads;
}

}  // namespace elements

#endif

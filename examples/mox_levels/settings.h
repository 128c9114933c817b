#ifndef MOX_LEVELS_SETTINGS_H
#define MOX_LEVELS_SETTINGS_H

#include "mox/gstreamer/property/binder.h"
#include "mox/property/primitive.h"

#include <string>

namespace mox_levels {

/**
 * The settings of the element. The class installs the properties from one object of this type; each
 * instance has an object of its own.
 */
struct Settings {
  mox::property::Primitive<bool> enabled{"enabled", "Enabled", "Change the picture", true};
  mox::property::Primitive<int> lift{"lift", "Lift", "Offset added to every level", 0, {-255, 255}};
  mox::property::Primitive<float> gain{"gain", "Gain", "Multiplier applied to every level", 1.0F, {0.0F, 16.0F}};
  mox::property::Primitive<double> gamma{
      "gamma", "Gamma", "Above 1 the middle levels get brighter, below 1 darker", 1.0, {0.1, 10.0}};
  mox::property::Primitive<std::string> label{"label", "Label", "Purpose of the element; changes nothing", ""};

  mox::gstreamer::property::Binder binder;

  Settings() {
    binder.Bind(enabled);
    binder.Bind(lift);
    binder.Bind(gain);
    binder.Bind(gamma);
    binder.Bind(label);
  }
};

}  // namespace mox_levels

#endif

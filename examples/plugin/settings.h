#ifndef PLUGIN_SETTINGS_H
#define PLUGIN_SETTINGS_H

#include "mox/gstreamer/property/binder.h"
#include "mox/property/primitive.h"

#include <string>

namespace plugin {

/** The settings of the element. The class has one to install the properties from, and each instance its own. */
struct Settings {
  mox::property::Primitive<bool> enabled{"enabled", "Enabled", "Whether the picture is changed", true};
  mox::property::Primitive<int> lift{"lift", "Lift", "What is added to every level", 0, {-255, 255}};
  mox::property::Primitive<float> gain{"gain", "Gain", "What every level is multiplied by", 1.0F, {0.0F, 16.0F}};
  mox::property::Primitive<double> gamma{
      "gamma", "Gamma", "Above 1 the middle levels get brighter, below 1 darker", 1.0, {0.1, 10.0}};
  mox::property::Primitive<std::string> label{"label", "Label", "What the element is there for; changes nothing", ""};

  mox::gstreamer::property::Binder binder;

  Settings() {
    binder.Bind(enabled);
    binder.Bind(lift);
    binder.Bind(gain);
    binder.Bind(gamma);
    binder.Bind(label);
  }
};

}  // namespace plugin

#endif

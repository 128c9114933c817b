// Preloaded into the test programs. Hides the lists of log functions from the address sanitizer,
// because GStreamer replaces and never frees them.

#include <gst/gst.h>

#include <dlfcn.h>

#undef gst_debug_add_log_function
#undef gst_debug_remove_log_function

// Weak, because the shells that start some of the programs load this too.
extern "C" [[gnu::weak]] void __lsan_disable();
extern "C" [[gnu::weak]] void __lsan_enable();

template <auto kFunction, typename... Arguments>
auto Call(const char* name, Arguments... arguments) {
  const struct Unnoticed {
    Unnoticed() { __lsan_disable(); }
    ~Unnoticed() { __lsan_enable(); }
  } unnoticed;
  return reinterpret_cast<decltype(kFunction)>(dlsym(RTLD_NEXT, name))(arguments...);
}

extern "C" {
void gst_init(int* argc, char*** argv) {
  Call<gst_init>("gst_init", argc, argv);
}
void gst_debug_add_log_function(GstLogFunction function, gpointer data, GDestroyNotify notify) {
  Call<gst_debug_add_log_function>("gst_debug_add_log_function", function, data, notify);
}
guint gst_debug_remove_log_function(GstLogFunction function) {
  return Call<gst_debug_remove_log_function>("gst_debug_remove_log_function", function);
}
}

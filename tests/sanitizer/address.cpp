// Preloaded into the programs of the tests. GStreamer never frees a list of log functions that it has replaced, the
// first of which it makes as it comes up, for another thread may still read it. The address sanitizer is to take no
// notice.

#include <gst/gst.h>

#include <dlfcn.h>

#undef gst_debug_add_log_function
#undef gst_debug_remove_log_function

// Weak, for the shells that start some of the programs load this too.
extern "C" [[gnu::weak]] void __lsan_disable();
extern "C" [[gnu::weak]] void __lsan_enable();

namespace {

// Calls the function itself. What it allocates counts as kept on purpose.
template <typename Function, typename... Arguments>
auto Call(Function& /*function*/, const char* name, Arguments... arguments) {
  const struct Unnoticed {
    Unnoticed() { __lsan_disable(); }
    ~Unnoticed() { __lsan_enable(); }
  } unnoticed;
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name))(arguments...);
}

}  // namespace

extern "C" {
#pragma GCC visibility push(default)

void gst_init(int* argc, char*** argv) {
  Call(gst_init, "gst_init", argc, argv);
}

void gst_debug_add_log_function(GstLogFunction function, gpointer data, GDestroyNotify notify) {
  Call(gst_debug_add_log_function, "gst_debug_add_log_function", function, data, notify);
}

guint gst_debug_remove_log_function(GstLogFunction function) {
  return Call(gst_debug_remove_log_function, "gst_debug_remove_log_function", function);
}

#pragma GCC visibility pop
}

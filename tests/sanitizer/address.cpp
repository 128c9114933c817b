// Preloaded into the test programs. Hides lists that were copied from the address sanitizer,
// because GStreamer replaces its list of log functions by a copy and never frees it.

#include <glib.h>

#include <dlfcn.h>

// Weak, because the shells that start some of the programs load this too.
extern "C" [[gnu::weak]] void __lsan_ignore_object(const void* object);

extern "C" GSList* g_slist_copy(GSList* list) {
  __lsan_ignore_object(list);
  return reinterpret_cast<decltype(&g_slist_copy)>(dlsym(RTLD_NEXT, "g_slist_copy"))(list);
}

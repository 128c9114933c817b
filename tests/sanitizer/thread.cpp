// Preloaded by the tests. Reports GLib's mutexes, which use futexes, to the thread sanitizer.

#include <glib.h>

#include <dlfcn.h>

// Weak, because the shells that start some of the programs load this too.
extern "C" [[gnu::weak]] void __tsan_acquire(void* address);
extern "C" [[gnu::weak]] void __tsan_release(void* address);

template <auto kFunction>
auto Next(const char* name) {
  static const auto next = reinterpret_cast<decltype(kFunction)>(dlsym(RTLD_NEXT, name));
  return next;
}

extern "C" {
void g_mutex_lock(GMutex* mutex) {
  Next<g_mutex_lock>("g_mutex_lock")(mutex);
  __tsan_acquire(mutex);
}

void g_mutex_unlock(GMutex* mutex) {
  __tsan_release(mutex);
  Next<g_mutex_unlock>("g_mutex_unlock")(mutex);
}

void g_cond_wait(GCond* condition, GMutex* mutex) {
  __tsan_release(mutex);
  Next<g_cond_wait>("g_cond_wait")(condition, mutex);
  __tsan_acquire(mutex);
}

gboolean g_cond_wait_until(GCond* condition, GMutex* mutex, gint64 end_time) {
  __tsan_release(mutex);
  const gboolean signalled = Next<g_cond_wait_until>("g_cond_wait_until")(condition, mutex, end_time);
  __tsan_acquire(mutex);
  return signalled;
}
}

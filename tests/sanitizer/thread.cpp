// Preloaded into the programs of the tests. Tells the thread sanitizer of GLib's mutexes, which are futexes of GLib's
// own and so not seen otherwise.

#include <glib.h>

#include <dlfcn.h>

// Weak, for the shells that start some of the programs load this too.
extern "C" [[gnu::weak]] void __tsan_acquire(void* address);
extern "C" [[gnu::weak]] void __tsan_release(void* address);

namespace {

template <typename Function>
Function* Next(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {
#pragma GCC visibility push(default)

void g_mutex_lock(GMutex* mutex) {
  static const auto next = Next<decltype(g_mutex_lock)>("g_mutex_lock");
  next(mutex);
  __tsan_acquire(mutex);
}

gboolean g_mutex_trylock(GMutex* mutex) {
  static const auto next = Next<decltype(g_mutex_trylock)>("g_mutex_trylock");
  const gboolean locked = next(mutex);
  if (locked != FALSE) {
    __tsan_acquire(mutex);
  }
  return locked;
}

void g_mutex_unlock(GMutex* mutex) {
  static const auto next = Next<decltype(g_mutex_unlock)>("g_mutex_unlock");
  __tsan_release(mutex);
  next(mutex);
}

void g_cond_wait(GCond* condition, GMutex* mutex) {
  static const auto next = Next<decltype(g_cond_wait)>("g_cond_wait");
  __tsan_release(mutex);
  next(condition, mutex);
  __tsan_acquire(mutex);
}

gboolean g_cond_wait_until(GCond* condition, GMutex* mutex, gint64 end_time) {
  static const auto next = Next<decltype(g_cond_wait_until)>("g_cond_wait_until");
  __tsan_release(mutex);
  const gboolean signalled = next(condition, mutex, end_time);
  __tsan_acquire(mutex);
  return signalled;
}

#pragma GCC visibility pop
}

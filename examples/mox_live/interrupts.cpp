#include "mox_live/interrupts.h"

#include <csignal>

#include <pthread.h>
#include <unistd.h>

namespace mox_live {
namespace {

sigset_t BlockSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  return signals;
}

}  // namespace

Interrupts::Interrupts(Events& events)
    : thread_([this, &events, signals = BlockSignals()] {
        for (int signal = 0; sigwait(&signals, &signal) == 0 && !stop_;) {
          if (events.GetSignal() != 0) {
            _exit(128 + signal);
          }
          events.Interrupt(signal);
        }
      }) {}

Interrupts::~Interrupts() {
  stop_ = true;
  pthread_kill(thread_.native_handle(), SIGINT);
  thread_.join();
}

}  // namespace mox_live

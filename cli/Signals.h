#pragma once
// Ending the program on a signal. The signals that end a program are
// blocked in every thread and taken by one thread of their own, which works
// even while the run's threads are busy: it kills the child processes, stops
// every other thread where it is, removes what the run recorded in its
// footprint, says so on stderr and exits with 128 + the signal number.

#include <csignal>
#include <string>
#include <vector>

namespace plexa::cli {

class SignalGuard {
 public:
  // The signals that end the program: interrupt, terminate, hang-up, quit and
  // the two user signals. Broken pipes become write errors instead.
  static const std::vector<int>& endingSignals();

  // Call first thing in main, before any thread exists: threads made later
  // inherit the blocked signals; child processes get them unblocked.
  static void install();

  // "SIGINT", "SIGTERM", ...; "signal N" for others.
  static std::string nameOf(int signal);

  // The stop sequence, run by the signal thread (exposed for tests): kill
  // the descendant processes, stop the other threads, remove the footprint.
  static void stopRun() noexcept;
};

}  // namespace plexa::cli

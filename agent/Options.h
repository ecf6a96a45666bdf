#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace Agent {

// How the process ends. The largest that applies is given, but kNotStarted goes before all others.
enum ExitStatus : int {
  kDone = 0,           // all that was asked for was done
  kNotStarted = 1,     // a store, file or socket can't be opened, or an outcome not written
  kLinesSkipped = 2,   // a line of a file of intents was wrong
  kIntentsFailed = 3,  // an intent ended as failed
  kGaveUpWaiting = 4,  // --timeout: something never reached its end
  kStopped = 5,        // by a signal, while intents had no outcome or nobody had taken one
};

// What the command line says.
struct Options {
  std::string name = "kelp";
  std::string root = "/dev/shm";
  std::vector<std::string> intents;  // "-": the standard input
  std::string socket;                // empty: none
  std::string inspect;               // the same, for inspection
  unsigned inspectMode = 0660;       // of that socket's file
  unsigned units = 1;
  std::string outcomes = "-";  // "-": the standard output; "none"
  std::string summary;         // empty: none; "-": the standard output
  std::string brisk;           // empty: none
  bool exitWhenDone = false;
  bool noSweep = false;
  bool forget = false;
  std::optional<std::chrono::milliseconds> timeout;
  std::size_t inFlight = 16384;
  double resourceDeadline = 60;  // seconds; 0: none
  std::chrono::milliseconds peerTimeout{30000};
  bool progress = false;
};

// Reads the command line. An exit status instead if there is nothing to run: help was asked for, or
// the line is wrong, which has been said then.
[[nodiscard]] std::optional<int> readOptions(int argc, char** argv, Options& options);

}  // namespace Agent

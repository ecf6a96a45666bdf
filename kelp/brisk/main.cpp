#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <exception>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "BriskTrace/Reader.h"
#include "BriskTrace/TraceFile.h"
#include "kelp/brisk/MessageText.h"

// kelp-brisk: prints a trace file, also while it is being written.

namespace {

constexpr std::chrono::milliseconds kPollInterval{100};

// Prints the messages and notes of one reader, and keeps what it has said already.
class Printer {
 public:
  Printer(bool json, bool follow) : json_(json), follow_(follow) {}

  // True if there was a message.
  bool printNew(BriskTrace::Reader& reader) {
    const std::vector<BriskTrace::Message> messages = reader.newMessages();
    for (const BriskTrace::Message& message : messages) {
      fmt::print("{}\n", json_ ? Kelp::messageJson(message) : Kelp::messageText(message));
    }
    std::fflush(stdout);
    if (reader.overwritten() > toldOverwritten_) {
      fmt::print(stderr, "kelp-brisk: {} messages were overwritten before they could be read\n",
                 reader.overwritten() - toldOverwritten_);
      toldOverwritten_ = reader.overwritten();
    }
    return !messages.empty();
  }

  void printNotes(const std::string& path, const BriskTrace::Reader& reader) const {
    if (!reader.headerWhole()) {
      fmt::print(stderr, "kelp-brisk: {}: the header is damaged: times may be wrong\n", path);
    }
    // While the file is being written one slot may be in the middle of a store.
    if (!follow_ && reader.damagedSlots() > (reader.closed() ? 0U : 1U)) {
      fmt::print(stderr, "kelp-brisk: {}: {} messages are damaged and left out\n", path,
                 reader.damagedSlots());
    }
  }

  void fileBegins() { toldOverwritten_ = 0; }

 private:
  bool json_;
  bool follow_;
  std::uint64_t toldOverwritten_ = 0;
};

// Goes on until the process is ended. When a later run replaces the file, it follows that one.
[[noreturn]] void follow(const std::string& path, std::unique_ptr<BriskTrace::Reader> reader,
                         Printer& printer) {
  while (true) {
    if (!reader->replaced()) {
      std::this_thread::sleep_for(kPollInterval);
      printer.printNew(*reader);
      continue;
    }
    printer.printNew(*reader);  // what was written before the replacement
    reader = std::make_unique<BriskTrace::Reader>(path);
    printer.fileBegins();
    fmt::print(stderr, "kelp-brisk: process {} has begun the file anew\n", reader->writerPid());
    printer.printNotes(path, *reader);
    printer.printNew(*reader);
  }
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app(
      "Prints the messages of a trace file. The files of earlier runs lie beside it, as FILE.1 "
      "(the last one), FILE.2 and so on.");
  std::string path;
  bool json = false;
  bool followFile = false;
  app.add_option("FILE", path, "The trace file")->required();
  app.add_flag("--json", json, "One JSON object a line");
  app.add_flag("--follow,-f", followFile,
               "Go on with the messages to come, also of later runs, until interrupted");
  CLI11_PARSE(app, argc, argv);

  try {
    auto reader = std::make_unique<BriskTrace::Reader>(path);
    Printer printer(json, followFile);
    printer.printNew(*reader);
    printer.printNotes(path, *reader);
    if (followFile) {
      follow(path, std::move(reader), printer);
    }
    if (std::ferror(stdout) != 0) {
      fmt::print(stderr, "kelp-brisk: cannot write to the standard output\n");
      return 1;
    }
    return 0;
  } catch (const std::exception& error) {
    fmt::print(stderr, "kelp-brisk: {}\n", error.what());
    return 1;
  }
}

#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Demo {

// A program that runs beside this one, with its output and its errors in files. It gets SIGKILL
// when this object goes, and when this process dies.
class Child {
 public:
  enum class Input : std::uint8_t { none, pipe };

  // Starts `program`; `name` is what it is called in messages. The files are NAME.out and NAME.err
  // in `folder`; an earlier run's are appended to. Throws std::runtime_error.
  Child(std::string name, const std::string& program, const std::vector<std::string>& arguments,
        const std::string& folder, Input input = Input::none);
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  [[nodiscard]] pid_t pid() const noexcept { return pid_; }
  [[nodiscard]] const std::string& name() const noexcept { return name_; }
  void signal(int number) const;

  // Whether it has ended. Does not wait.
  [[nodiscard]] bool ended();
  // Waits for its end; false if it has not come by then.
  [[nodiscard]] bool waitFor(std::chrono::milliseconds most);
  // How it ended: its exit status, or nothing if a signal ended it. It must have ended.
  [[nodiscard]] std::optional<int> exitStatus() const;
  // "kelp-agent ended with exit status 1", with the last lines of its errors.
  [[nodiscard]] std::string obituary() const;

  // The rest of the last line of its errors that has `text` in it, from there on; empty if it has
  // not said that in this run.
  [[nodiscard]] std::string said(const std::string& text) const;

  // Hands its standard input, a pipe, as many of the bytes as go without waiting; gives how many.
  std::size_t feed(std::string_view bytes);
  void endInput();

  // What it wrote to the standard output so far, all runs of the name.
  [[nodiscard]] std::string output() const;

 private:
  std::string name_;
  std::string base_;  // of its files
  pid_t pid_ = -1;
  int input_ = -1;              // the end of the pipe that is written to
  std::uint64_t errorsAt_ = 0;  // where in the file the errors of this run begin
  std::optional<int> status_;   // as waitpid() gives it
};

}  // namespace Demo

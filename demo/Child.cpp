#include "demo/Child.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

namespace Demo {
namespace {

constexpr std::size_t kTailLines = 20;

// Between fork() and exec(): nothing but system calls.
[[noreturn]] void become(const char* program, char* const* arguments, const char* out,
                         const char* error, int input, pid_t parent) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::getppid() != parent) {
    ::_exit(127);
  }
  // What comes from here on must end this process, not set a flag of the one it was copied from.
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
    ::signal(number, SIG_DFL);
  }
  sigset_t none;
  sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
  if (input < 0) {
    input = ::open("/dev/null", O_RDONLY);
  }
  const int output = ::open(out, O_WRONLY | O_CREAT | O_APPEND, 0640);
  const int errors = ::open(error, O_WRONLY | O_CREAT | O_APPEND, 0640);
  if (input < 0 || output < 0 || errors < 0) {
    ::_exit(127);
  }
  ::dup2(input, STDIN_FILENO);
  ::dup2(output, STDOUT_FILENO);
  ::dup2(errors, STDERR_FILENO);
  // A Ctrl-C is for this program to deal with, not for its children.
  ::setpgid(0, 0);
  ::execv(program, arguments);
  const char* const reason = std::strerror(errno);
  static_cast<void>(!::write(STDERR_FILENO, reason, std::strlen(reason)));
  ::_exit(127);
}

}  // namespace

Child::Child(std::string name, const std::string& program,
             const std::vector<std::string>& arguments, const std::string& folder, Input input)
    : name_(std::move(name)), base_(folder + "/" + name_) {
  if (::access(program.c_str(), X_OK) != 0) {
    throw std::runtime_error(fmt::format("{}: {}; build it, it has to lie beside this program",
                                         program, std::strerror(errno)));
  }
  std::vector<std::string> all{program};
  all.insert(all.end(), arguments.begin(), arguments.end());
  std::vector<char*> raw;
  for (std::string& argument : all) {
    raw.push_back(argument.data());
  }
  raw.push_back(nullptr);
  const std::string out = base_ + ".out";
  const std::string error = base_ + ".err";
  std::error_code absent;
  const auto size = std::filesystem::file_size(error, absent);
  errorsAt_ = absent ? 0 : size;
  int ends[2] = {-1, -1};
  if (input == Input::pipe && ::pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) {
    throw std::runtime_error(fmt::format("cannot make a pipe: {}", std::strerror(errno)));
  }
  input_ = ends[1];
  if (ends[0] >= 0) {
    ::fcntl(ends[0], F_SETFL, 0);  // the program need not know
  }
  const pid_t parent = ::getpid();
  sigset_t blocked;
  sigset_t before;
  sigfillset(&blocked);
  ::sigprocmask(SIG_SETMASK, &blocked, &before);
  pid_ = ::fork();
  if (pid_ == 0) {
    become(program.c_str(), raw.data(), out.c_str(), error.c_str(), ends[0], parent);
  }
  ::sigprocmask(SIG_SETMASK, &before, nullptr);
  if (ends[0] >= 0) {
    ::close(ends[0]);
  }
  if (pid_ < 0) {
    throw std::runtime_error(fmt::format("cannot start {}: {}", program, std::strerror(errno)));
  }
}

Child::~Child() {
  endInput();
  if (!ended()) {
    ::kill(pid_, SIGKILL);
    static_cast<void>(::waitpid(pid_, nullptr, 0));
  }
}

void Child::signal(int number) const {
  if (!status_) {
    ::kill(pid_, number);
  }
}

bool Child::ended() {
  int status = 0;
  if (!status_ && ::waitpid(pid_, &status, WNOHANG) == pid_) {
    status_ = status;
  }
  return status_.has_value();
}

bool Child::waitFor(std::chrono::milliseconds most) {
  const auto until = std::chrono::steady_clock::now() + most;
  while (!ended()) {
    if (std::chrono::steady_clock::now() >= until) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

std::optional<int> Child::exitStatus() const {
  if (status_ && WIFEXITED(*status_)) {
    return WEXITSTATUS(*status_);
  }
  return std::nullopt;
}

std::string Child::obituary() const {
  std::string text = name_;
  if (!status_) {
    text += " runs";
  } else if (WIFEXITED(*status_)) {
    text += fmt::format(" ended with exit status {}", WEXITSTATUS(*status_));
  } else {
    text += fmt::format(" was ended by signal {} ({})", WTERMSIG(*status_),
                        ::strsignal(WTERMSIG(*status_)));
  }
  std::ifstream errors(base_ + ".err");
  std::deque<std::string> tail;
  for (std::string line; std::getline(errors, line);) {
    tail.push_back(line);
    if (tail.size() > kTailLines) {
      tail.pop_front();
    }
  }
  text += tail.empty() ? "; it has said nothing" : "; the last that it said:";
  for (const std::string& line : tail) {
    text += "\n    " + line;
  }
  return text;
}

std::string Child::said(const std::string& text) const {
  std::ifstream errors(base_ + ".err");
  errors.seekg(static_cast<std::streamoff>(errorsAt_));
  std::string last;
  for (std::string line; std::getline(errors, line);) {
    const auto at = line.find(text);
    if (at != std::string::npos && !errors.eof()) {
      last = line.substr(at);
    }
  }
  return last;
}

std::size_t Child::feed(std::string_view bytes) {
  const ssize_t count = ::write(input_, bytes.data(), bytes.size());
  return count > 0 ? static_cast<std::size_t>(count) : 0;
}

void Child::endInput() {
  if (input_ >= 0) {
    ::close(std::exchange(input_, -1));
  }
}

std::string Child::output() const {
  std::ifstream file(base_ + ".out", std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

}  // namespace Demo

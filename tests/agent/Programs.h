#pragma once

// The programs that are tested, as the build names them.
#ifndef KELP_AGENT
#define KELP_AGENT "kelp-agent"
#define KELP_CHIP "kelp-chip"
#endif

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "TempRoot.h"
#include "common/Json.h"

// The real programs, as processes over a store of the test's own.

namespace AgentTest {

using Common::Json;

// Generous: the machine may be busy, and the programs instrumented.
inline constexpr std::chrono::seconds kPatience{60};

inline std::string contentOf(const std::string& path) {
  std::ifstream file(path);
  std::stringstream text;
  text << file.rdbuf();
  return text.str();
}

// Whether `holds` comes true while somebody may still wait for it.
inline bool comesTrue(const std::function<bool()>& holds) {
  const auto end = std::chrono::steady_clock::now() + kPatience;
  while (!holds()) {
    if (std::chrono::steady_clock::now() > end) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

enum class Input { none, pipe, socket };

// A process with its outputs in files, and its input from what `from` says. Killed with the object.
class Program {
 public:
  Program(const std::string& program, std::vector<std::string> arguments,
          const std::string& outputs, Input from = Input::none)
      : out_(outputs + ".out"), err_(outputs + ".err") {
    arguments.insert(arguments.begin(), program);
    std::vector<char*> raw;
    for (std::string& argument : arguments) {
      raw.push_back(argument.data());
    }
    raw.push_back(nullptr);
    int input[2] = {-1, -1};
    if ((from == Input::pipe && pipe2(input, O_CLOEXEC) != 0) ||
        (from == Input::socket && socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, input) != 0)) {
      throw std::runtime_error("no pipe");
    }
    process_ = fork();
    if (process_ == 0) {
      const int in = from != Input::none ? input[0] : open("/dev/null", O_RDONLY);
      const int flags = O_WRONLY | O_CREAT | O_TRUNC;
      dup2(in, STDIN_FILENO);
      dup2(open(out_.c_str(), flags, 0644), STDOUT_FILENO);
      dup2(open(err_.c_str(), flags, 0644), STDERR_FILENO);
      execv(program.c_str(), raw.data());
      _exit(127);
    }
    if (from != Input::none) {
      close(input[0]);
      input_ = input[1];
    }
  }
  ~Program() {
    closeInput();
    if (process_ > 0) {
      kill(SIGKILL);
      (void)ends();
    }
  }
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  [[nodiscard]] pid_t process() const { return process_; }
  [[nodiscard]] std::string out() const { return contentOf(out_); }
  [[nodiscard]] std::string err() const { return contentOf(err_); }
  [[nodiscard]] bool prints(const std::string& text) const {
    return comesTrue([&] { return out().find(text) != std::string::npos; });
  }
  [[nodiscard]] bool says(const std::string& text) const {
    return comesTrue([&] { return err().find(text) != std::string::npos; });
  }

  void write(const std::string& text) const {
    ASSERT_EQ(::write(input_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  void closeInput() {
    if (input_ >= 0) {
      close(std::exchange(input_, -1));
    }
  }
  void kill(int signal) const { ::kill(process_, signal); }
  // The exit status once it has ended; 1000 and the signal that ended it; -1 if it goes on.
  int ends() {
    int status = 0;
    const bool ended = comesTrue([&] { return waitpid(process_, &status, WNOHANG) == process_; });
    if (!ended) {
      return -1;
    }
    process_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
  }

 private:
  std::string out_;
  std::string err_;
  pid_t process_ = -1;
  int input_ = -1;
};

// A store, with agents and hardware sides on it.
class WithStore : public testing::Test {
 protected:
  [[nodiscard]] std::string path(const std::string& name) const {
    return root_.path() + "/" + name;
  }
  std::string file(const std::string& name, const std::string& content) const {
    std::ofstream(path(name)) << content;
    return path(name);
  }
  Program agent(std::vector<std::string> arguments, Input from = Input::none) {
    return {KELP_AGENT, onStore(std::move(arguments)), path("agent" + std::to_string(++programs_)),
            from};
  }
  Program chip(std::vector<std::string> arguments = {}) {
    return {KELP_CHIP, onStore(std::move(arguments)), path("chip" + std::to_string(++programs_))};
  }
  // An agent whose standard output is `file`, and may be a pipe.
  Program agentInto(const std::string& file, std::vector<std::string> arguments) {
    std::string line = "exec " KELP_AGENT;
    for (const std::string& argument : onStore(std::move(arguments))) {
      line += " '" + argument + "'";
    }
    return {
        "/bin/sh", {"-c", line + " > '" + file + "'"}, path("agent" + std::to_string(++programs_))};
  }
  // Waits until the agent on the store is in its loop or about to be.
  [[nodiscard]] bool started() const {
    return comesTrue([&] { return access(path("kelp/.bell-agent.pipe").c_str(), F_OK) == 0; });
  }
  // Makes the agent write its summary to `name`, and reads it.
  [[nodiscard]] Json summaryOf(const Program& agent, const std::string& name) const {
    unlink(path(name).c_str());
    agent.kill(SIGUSR1);
    EXPECT_TRUE(comesTrue([&] { return access(path(name).c_str(), F_OK) == 0; }));
    return summary(name);
  }
  // The summary that a run with --summary `name` has left.
  [[nodiscard]] Json summary(const std::string& name) const {
    return Json::parse(contentOf(path(name)));
  }
  [[nodiscard]] static Json tableOf(const Json& summary, const std::string& table, unsigned unit) {
    for (const Json& one : summary["tables"]) {
      if (one["table"] == table && one["unit"] == unit) {
        return one;
      }
    }
    return {};
  }

  TestSupport::TempRoot root_;

 private:
  [[nodiscard]] std::vector<std::string> onStore(std::vector<std::string> arguments) const {
    arguments.insert(arguments.end(), {"--root", root_.path()});
    return arguments;
  }

  unsigned programs_ = 0;
};

// The outcome lines of a text.
inline std::vector<Json> outcomes(const std::string& text) {
  std::vector<Json> all;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    all.push_back(Json::parse(line));
  }
  return all;
}
// The outcome of a line, or null.
inline Json outcomeOf(const std::string& text, unsigned line) {
  for (const Json& one : outcomes(text)) {
    if (one["line"] == line) {
      return one;
    }
  }
  return nullptr;
}

inline std::string writeFodo(unsigned fodo, unsigned outLif, const std::string& rest = "",
                             unsigned unit = 0) {
  return R"({"op":"write","table":"EsemFodo","unit":)" + std::to_string(unit) +
         R"(,"key":{"fodo":)" + std::to_string(fodo) + R"(},"payload":{"outLif":)" +
         std::to_string(outLif) + "}" + rest + "}\n";
}
inline std::string removeFodo(unsigned fodo, const std::string& rest = "") {
  return R"({"op":"remove","table":"EsemFodo","unit":0,"key":{"fodo":)" + std::to_string(fodo) +
         "}" + rest + "}\n";
}
inline std::string afterFodo(unsigned fodo) {
  return R"(,"after":{"table":"EsemFodo","unit":0,"key":{"fodo":)" + std::to_string(fodo) + "}}";
}
inline std::string writeInner(unsigned vlan, const std::string& rest = "") {
  return R"({"op":"write","table":"IsemInnerEth","unit":0,"key":{"tunnel":1,"vlan":)" +
         std::to_string(vlan) + R"(},"payload":{"inLif":5})" + rest + "}\n";
}

}  // namespace AgentTest

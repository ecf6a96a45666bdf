#include "agent/InspectionPeer.h"

#include <fmt/format.h>

#include <asio/buffer.hpp>
#include <asio/error.hpp>
#include <utility>

#include "agent/InspectionError.h"
#include "agent/InspectionServer.h"
#include "agent/Say.h"

namespace Agent {

namespace JsonRpc = Common::JsonRpc;

namespace {

constexpr std::size_t kChangesAtATime = 32;

bool isBlank(std::string_view line) {
  return line.find_first_not_of(" \t\r") == std::string_view::npos;
}

}  // namespace

InspectionPeer::InspectionPeer(Socket socket, std::string name, bool mayChange,
                               InspectionServer& server)
    : socket_(std::move(socket)),
      name_(std::move(name)),
      server_(server),
      session_(mayChange, server.limits(),
               [this](Clock::duration took) {
                 server_.charge(took);
                 wake();
               }),
      longestLine_(mayChange ? kLongestLine : kLongestLineOfOthers),
      lastWrite_(Clock::now()) {
  socket_.non_blocking(true);
}

void InspectionPeer::waitForInput() {
  socket_.async_wait(Socket::wait_read, [self = shared_from_this()](const asio::error_code& error) {
    if (!error) {
      self->readable_ = true;
      self->wake();
    }
  });
}

void InspectionPeer::waitForOutput() {
  waitsForOutput_ = true;
  socket_.async_wait(Socket::wait_write,
                     [self = shared_from_this()](const asio::error_code& error) {
                       self->waitsForOutput_ = false;
                       if (!error) {
                         self->wake();
                       }
                     });
}

void InspectionPeer::wake() {
  if (socket_.is_open()) {
    server_.wake(*this);
  }
}

bool InspectionPeer::hasWork() const {
  if (!socket_.is_open()) {
    return false;
  }
  if (!out_.empty() && !waitsForOutput_) {
    return true;
  }
  return mayAnswer() && (session_.hasNews() || (!ends_ && (readable_ || linesLeft_ || inputEnded_ ||
                                                           at_ < line_.requests.size())));
}

void InspectionPeer::work() {
  if (!socket_.is_open()) {
    return;
  }
  if (out_.empty()) {
    lastWrite_ = Clock::now();
  }
  tellChanges();
  if (mayAnswer() && !ends_) {
    if (at_ == line_.requests.size() && !takeLine()) {
      readSome();
      if (!socket_.is_open()) {
        return;
      }
    }
    if (at_ < line_.requests.size() || takeLine()) {
      answer();
    } else if (inputEnded_) {
      ends_ = true;
    }
  }
  write();
}

void InspectionPeer::readSome() {
  if (!readable_ || inputEnded_) {
    return;
  }
  asio::error_code error;
  const std::size_t count = socket_.read_some(asio::buffer(server_.chunk()), error);
  if (error == asio::error::would_block) {
    readable_ = false;
    waitForInput();
  } else if (error == asio::error::eof) {
    readable_ = false;
    inputEnded_ = true;  // it may still wait for responses
    linesLeft_ = true;   // the last line may have no end
  } else if (error) {
    close();  // it is gone, and nothing is lost with it
  } else {
    lines_.append(std::string_view(server_.chunk().data(), count));
    linesLeft_ = true;
  }
}

bool InspectionPeer::takeLine() {
  while (linesLeft_) {
    auto line = lines_.next();
    if (!line && inputEnded_) {
      line = lines_.last();
    }
    if (!line) {
      linesLeft_ = false;
      break;
    }
    if (line->tooLong) {
      JsonRpc::appendError(
          out_, "null", JsonRpc::kNoRequest,
          fmt::format("the line is longer than {} bytes: send less at a time", longestLine_));
      out_ += '\n';
      ends_ = true;
      say("{} is dropped: line {} is longer than {} bytes", name_, line->number, longestLine_);
      return false;
    }
    if (isBlank(line->text)) {
      continue;
    }
    line_ = JsonRpc::parse(line->text);
    at_ = 0;
    answer_.clear();
    if (line_.batch) {
      answer_ += '[';
    }
    return true;
  }
  return false;
}

// The response of one request of the line, or a part of it.
void InspectionPeer::answer() {
  const JsonRpc::Request& request = line_.requests[at_];
  if (!answerRequest(request)) {
    return;
  }
  if (request.id.empty()) {
    answer_.resize(before_);
    session_.undoNew();
  }
  session_.keepNew();
  more_ = nullptr;
  ++server_.totals().requests;
  if (++at_ < line_.requests.size()) {
    return;
  }
  if (answer_.size() > (line_.batch ? 1U : 0U)) {
    out_ += answer_;
    out_ += line_.batch ? "]\n" : "\n";
  }
  answer_ = std::string();
  line_ = {};
  at_ = 0;
}

bool InspectionPeer::answerRequest(const JsonRpc::Request& request) {
  try {
    if (!more_) {
      startRequest(request);
    }
    if (more_ && !more_(answer_)) {
      return false;
    }
    answer_ += '}';
  } catch (const std::exception&) {
    answer_.resize(before_);
    session_.undoNew();
    if (line_.batch && before_ > 1) {
      answer_ += ',';
    }
    failRequest(request);
  }
  return true;
}

void InspectionPeer::startRequest(const JsonRpc::Request& request) {
  before_ = answer_.size();
  if (request.code != 0) {
    throw InspectionError(request.code, request.wrong);
  }
  const InspectionMethod method = inspectionMethod(request.method);
  if (method == nullptr) {
    throw InspectionError(
        JsonRpc::kNoMethod,
        Common::InputError(fmt::format("{}: no such method", request.method)).what());
  }
  if (answer_.size() > kLongestBatch) {
    throw InspectionError(kLimitReached,
                          fmt::format("the answer of the batch is longer than {} bytes: send this "
                                      "request in another",
                                      kLongestBatch));
  }
  if (line_.batch && before_ > 1) {
    answer_ += ',';
  }
  JsonRpc::appendResultStart(answer_, request.id);
  InspectionCall call{server_.context(), server_, session_, request.params, answer_, {}};
  method(call);
  more_ = std::move(call.more);
}

// Adds the error that is being handled.
void InspectionPeer::failRequest(const JsonRpc::Request& request) {
  std::string path;
  if (request.params.is_object() && request.params.contains("path") &&
      request.params["path"].is_string()) {
    path = request.params["path"].get<std::string>();
  }
  const auto add = [&](int code, std::string_view text, const std::string& at) {
    JsonRpc::appendError(answer_, request.id, code, text, at);
  };
  try {
    throw;
  } catch (const InspectionError& error) {
    const bool isPlace = error.code() > 0;
    add(error.code(), error.what(), !error.path().empty() ? error.path() : isPlace ? path : "");
  } catch (const Brio::InspectSyntaxError& error) {
    add(JsonRpc::kWrongParams, fmt::format("path: {}", error.what()), path);
  } catch (const Brio::InspectError& error) {
    const std::string& missing = error.missing();
    if (missing.empty()) {
      add(kNotValid, error.what(), path);
    } else if (session_.knewOf(missing)) {
      add(kGone, fmt::format("{}: it was there, and is gone", error.what()), path);
    } else {
      add(kNotFound, error.what(), path);
    }
  } catch (const std::exception& error) {
    add(kFailed, path.empty() ? error.what() : fmt::format("{}: {}", path, error.what()), path);
  }
}

void InspectionPeer::tellChanges() {
  for (std::size_t i = 0; i < kChangesAtATime && session_.hasNews() && mayAnswer(); ++i) {
    session_.tellChange(out_);
  }
}

void InspectionPeer::write() {
  if (!socket_.is_open()) {
    return;
  }
  if (!out_.empty() && !waitsForOutput_) {
    asio::error_code error;
    const std::size_t count = socket_.write_some(asio::buffer(out_), error);
    if (error && error != asio::error::would_block) {
      close();
      return;
    }
    if (count != 0) {
      lastWrite_ = Clock::now();
      out_.erase(0, count);
    }
    if (!out_.empty()) {
      waitForOutput();
    }
  }
  if (out_.empty()) {
    if (out_.capacity() > 2 * kMostWaiting) {
      out_ = std::string();
    }
    if (ends_) {
      close();
    }
  }
}

void InspectionPeer::checkAlive(Clock::time_point now, std::chrono::milliseconds timeout) {
  if (!out_.empty() && now - lastWrite_ > timeout) {
    drop(fmt::format("it has taken no output for {} s",
                     std::chrono::duration<double>(timeout).count()));
  }
}

void InspectionPeer::drop(std::string_view why) {
  if (socket_.is_open()) {
    say("{} is dropped: {}", name_, why);
    close();
  }
}

void InspectionPeer::close() {
  if (!socket_.is_open()) {
    return;
  }
  const auto self = shared_from_this();
  asio::error_code ignored;
  socket_.close(ignored);
  more_ = nullptr;
  session_.clear();
  server_.gone(*this);
}

}  // namespace Agent

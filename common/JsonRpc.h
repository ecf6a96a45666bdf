#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "common/Json.h"

// JSON-RPC 2.0 as a server reads and answers it.

namespace Common {

namespace JsonRpc {

enum Code : int {
  kNoJson = -32700,
  kNoRequest = -32600,
  kNoMethod = -32601,
  kWrongParams = -32602,
};

inline constexpr std::size_t kMostRequests = 64;  // in a batch
inline constexpr unsigned kDeepest = 32;          // values in values
inline constexpr std::size_t kMostValues = 16384;

// One request of a line, or what is wrong in the place of one.
struct Request {
  std::string id;  // as JSON; empty: a notification, which gets no response
  std::string method;
  Json params;        // an object; null if there are none
  int code = 0;       // 0: it is a request
  std::string wrong;  // what is wrong, and the remedy
};

struct Line {
  bool batch = false;  // the responses are an array
  std::vector<Request> requests;
};

// Reads the requests of a line. Whatever the bytes are, there is a line: what is no request, or no
// JSON, stands in it as an error with the id `null` or, where it can be told, its own. Throws
// nothing but std::bad_alloc. Costs some 30 ns a byte at most.
[[nodiscard]] Line parse(std::string_view line);

// The beginning of a response, up to the result, which is to be followed by '}'.
void appendResultStart(std::string& out, std::string_view id);
// A response that is an error; its data names `path` unless that is empty.
void appendError(std::string& out, std::string_view id, int code, std::string_view message,
                 std::string_view path = {});

}  // namespace JsonRpc
}  // namespace Common

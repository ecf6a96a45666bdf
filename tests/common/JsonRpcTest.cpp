#include "common/JsonRpc.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace {

using Common::Json;
using testing::HasSubstr;
namespace JsonRpc = Common::JsonRpc;

JsonRpc::Request one(const std::string& line) {
  JsonRpc::Line parsed = JsonRpc::parse(line);
  EXPECT_FALSE(parsed.batch) << line;
  EXPECT_EQ(parsed.requests.size(), 1U) << line;
  return parsed.requests.at(0);
}
void expectWrong(const std::string& line, int code, const std::string& id,
                 const std::string& wrong) {
  const JsonRpc::Request request = one(line);
  EXPECT_EQ(request.code, code) << line;
  EXPECT_EQ(request.id, id) << line;
  EXPECT_THAT(request.wrong, HasSubstr(wrong)) << line;
}

TEST(JsonRpc, ReadsARequest) {
  const JsonRpc::Request request =
      one(R"( {"params":{"b":[1,{"c":null}]},"method":"m","id":7,"jsonrpc":"2.0"} )");
  EXPECT_EQ(request.code, 0) << request.wrong;
  EXPECT_EQ(request.id, "7");
  EXPECT_EQ(request.method, "m");
  EXPECT_EQ(request.params, Json::parse(R"({"b":[1,{"c":null}]})"));
}

TEST(JsonRpc, AnIdComesBackAsItWas) {
  const auto idOf = [](const std::string& id) {
    return one(R"({"jsonrpc":"2.0","method":"m","id":)" + id + "}").id;
  };
  for (const char* id :
       {"0", "-3", "18446744073709551615", "1.5", "null", R"("")", R"("a\"\u0001")"}) {
    EXPECT_EQ(idOf(id), id);
  }
  const JsonRpc::Request notification = one(R"({"jsonrpc":"2.0","method":"m"})");
  EXPECT_EQ(notification.code, 0);
  EXPECT_EQ(notification.id, "");
  EXPECT_TRUE(notification.params.is_null());
}

TEST(JsonRpc, ABatchHasItsRequestsInOrderWrongOnesToo) {
  const JsonRpc::Line line = JsonRpc::parse(
      R"([{"jsonrpc":"2.0","method":"a","id":1},5,{"jsonrpc":"2.0","method":"b"},[]])");
  EXPECT_TRUE(line.batch);
  ASSERT_EQ(line.requests.size(), 4U);
  EXPECT_EQ(line.requests[0].method, "a");
  EXPECT_EQ(line.requests[1].code, JsonRpc::kNoRequest);
  EXPECT_EQ(line.requests[1].id, "null");
  EXPECT_EQ(line.requests[2].method, "b");
  EXPECT_EQ(line.requests[3].code, JsonRpc::kNoRequest);
}

TEST(JsonRpc, WhatIsNoJsonSaysWhere) {
  expectWrong("", -32700, "null", "no JSON, column 1: ");
  expectWrong("{", -32700, "null", "no JSON, column 2: ");
  expectWrong(R"({"a":1e999})", -32700, "null", "no JSON, ");
  expectWrong("{\"a\":\"\xc3\"}", -32700, "null", "no JSON, ");
  expectWrong(R"({"a":1} {"b":2})", -32700, "null", "no JSON, column 9: ");
  expectWrong(std::string("{\0}", 3), -32700, "null", "no JSON, ");
}

TEST(JsonRpc, WhatIsNoRequestSaysWhatToWrite) {
  expectWrong("null", -32600, "null", "write an object");
  expectWrong("\"x\"", -32600, "null", "write an object");
  expectWrong("{}", -32600, "null", "jsonrpc: write \"2.0\"");
  expectWrong(R"({"jsonrpc":2.0,"id":1,"method":"m"})", -32600, "1", "jsonrpc: write");
  expectWrong(R"({"jsonrpc":"2.0","id":1})", -32600, "1", "method: write");
  expectWrong(R"({"jsonrpc":"2.0","id":1,"method":5})", -32600, "1", "method: write");
  expectWrong(R"({"jsonrpc":"2.0","id":true,"method":"m"})", -32600, "null", "id: write");
  expectWrong(R"({"jsonrpc":"2.0","id":{},"method":"m"})", -32600, "null", "id: write");
  expectWrong(R"({"jsonrpc":"2.0","id":1,"method":"m","param":{}})", -32600, "1", "param: unknown");
  expectWrong(R"({"jsonrpc":"2.0","id":1,"method":"m","params":[1]})", -32602, "1",
              "params: write an object");
  expectWrong(R"({"jsonrpc":"2.0","method":"m","params":null})", -32602, "", "params: write");
  expectWrong("[]", -32600, "null", "a batch of 0 requests");
  expectWrong(R"({"id":1,"id":2})", -32600, "null", "\"id\" stands twice");
}

TEST(JsonRpc, NothingLargeIsBuilt) {
  const std::string deep = std::string(100000, '[') + std::string(100000, ']');
  expectWrong(deep, -32600, "null", "nested deeper than 32 levels");
  const std::string fits = std::string(31, '[') + std::string(31, ']');
  EXPECT_EQ(one(R"({"jsonrpc":"2.0","method":"m","params":{"a":)" + fits.substr(1, 60) + "}}").code,
            0);
  std::string wide = "[1";
  for (unsigned i = 0; i < 100000; ++i) {
    wide += ",1";
  }
  expectWrong(wide + "]", -32600, "null", "more than 16384 values");
}

TEST(JsonRpc, AnErrorIsOneLineOfPrintableText) {
  for (const std::string& line : {std::string("{\"a\x01\n"), std::string("\x80\xff"),
                                  std::string(R"({"jsonrpc":"2.0","method":"m","\u0007":1})")}) {
    for (const char character : one(line).wrong) {
      EXPECT_TRUE(character >= ' ' && character <= '~') << int{character};
    }
  }
}

TEST(JsonRpc, ResponsesAreWritten) {
  std::string out;
  JsonRpc::appendResultStart(out, "\"x\"");
  out += "5}";
  EXPECT_EQ(out, R"({"jsonrpc":"2.0","id":"x","result":5})");
  out.clear();
  JsonRpc::appendError(out, "null", 2, "no \"such\" thing", "a/b");
  EXPECT_EQ(Json::parse(out), Json::parse(R"({"jsonrpc":"2.0","id":null,"error":{"code":2,
                "message":"no \"such\" thing","data":{"path":"a/b"}}})"));
  out.clear();
  JsonRpc::appendError(out, "1", -32600, "x");
  EXPECT_FALSE(Json::parse(out)["error"].contains("data"));
}

}  // namespace

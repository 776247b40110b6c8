#include "kestle/http/post.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "kestle/http/testing/scripted_transport.h"

namespace kestle::http {
namespace {

using namespace std::string_literals;

constexpr char kUrl[] = "https://cloud.example/v1";

base::DictionaryValue SmallObject() {
  base::DictionaryValue object;
  object.SetInteger("a", 1);
  object.SetString("b", "text");
  return object;
}

SentRequest SentJson(const HeaderList& headers) {
  const auto transport = std::make_shared<ScriptedTransport>();
  PostJson(kUrl, SmallObject(), headers, transport, {}, {});
  return transport->TakeRequest();
}

SentRequest SentForm(const FormFieldList& fields, const HeaderList& headers = {}) {
  const auto transport = std::make_shared<ScriptedTransport>();
  PostFormData(kUrl, fields, headers, transport, {}, {});
  return transport->TakeRequest();
}

TEST(PostJson, SendsCompactTextToTheUrl) {
  const SentRequest request = SentJson({});
  EXPECT_EQ(request.url, kUrl);
  EXPECT_EQ(request.body, R"({"a":1,"b":"text"})");
  EXPECT_EQ(request.headers, (HeaderList{{"Content-Type", "application/json; charset=utf-8"}}));
}

TEST(PostJson, KeepsTheCallersHeadersInTheirOrder) {
  const HeaderList headers = {{"Authorization", "Bearer x"}, {"Content-Type", "application/json"}};
  EXPECT_EQ(SentJson(headers).headers, headers);
}

TEST(PostJson, AContentTypeOfTheCallerReplacesTheDefaultIgnoringCase) {
  for (const char* name : {"Content-Type", "content-type", "CONTENT-TYPE"}) {
    const SentRequest request = SentJson({{name, "application/json"}});
    EXPECT_EQ(request.headers, (HeaderList{{name, "application/json"}}));
  }
}

TEST(PostJson, PassesItsCallbacksAndReturnsTheIdOfTheTransport) {
  const auto transport = std::make_shared<ScriptedTransport>();
  std::string body;
  RequestID answered = 0;
  const RequestID id = PostJson(kUrl, SmallObject(), {}, transport,
                                [&](RequestID request, std::unique_ptr<Response> response) {
                                  answered = request;
                                  body = response->ExtractDataAsString();
                                },
                                {});
  EXPECT_EQ(answered, 0);
  transport->Answer(200, "fine");
  EXPECT_EQ(answered, id);
  EXPECT_EQ(body, "fine");
}

TEST(PostFormData, EncodesValuesOfAnySize) {
  const std::string value(size_t{9} * 1024 * 1024 + 1, '/');
  const std::string body = SentForm({{"code", value}, {"next", "1"}}).body;
  EXPECT_EQ(body.size(), std::string("code=&next=1").size() + 3 * value.size());
  EXPECT_EQ(body.substr(body.size() - 10), "%2F&next=1");
}

TEST(PostFormData, EncodesFieldsInTheGivenOrder) {
  const struct {
    FormFieldList fields;
    std::string body;
  } kCases[] = {
      {{}, ""},
      {{{"code", "abc"}}, "code=abc"},
      {{{"z", "1"}, {"a", "2"}, {"z", "3"}}, "z=1&a=2&z=3"},
      {{{"empty", ""}, {"next", "x"}}, "empty=&next=x"},
      {{{"", "nameless"}}, "=nameless"},
      {{{"v", "a&b=c+d e"}}, "v=a%26b%3Dc%2Bd%20e"},
      {{{"a&b=c", "x"}}, "a%26b%3Dc=x"},
      {{{"v", "AZaz09-._~"}}, "v=AZaz09-._~"},
      {{{"v", "4/0A%?#;\"'<>"}}, "v=4%2F0A%25%3F%23%3B%22%27%3C%3E"},
      {{{"v", "\r\n"}}, "v=%0D%0A"},
      {{{"v", "\0\x01\xff\0"s}}, "v=%00%01%FF%00"},
      {{{"v", "f\xc3\xbcr"}}, "v=f%C3%BCr"},
      {{{"scope", "https://a.example/x https://b.example/y"}},
       "scope=https%3A%2F%2Fa.example%2Fx%20https%3A%2F%2Fb.example%2Fy"},
  };
  for (const auto& test : kCases) EXPECT_EQ(SentForm(test.fields).body, test.body);
}

TEST(PostFormData, SetsTheContentTypeUnlessTheCallerDoes) {
  EXPECT_EQ(SentForm({}).headers,
            (HeaderList{{"Content-Type", "application/x-www-form-urlencoded"}}));
  EXPECT_EQ(SentForm({}, {{"content-TYPE", "mine"}}).headers,
            (HeaderList{{"content-TYPE", "mine"}}));
}

TEST(ParseJsonResponse, ReadsAnObjectOfAnyStatus) {
  for (const int status : {200, 204, 302, 400, 500}) {
    Response response(status, R"({"error":"invalid_grant"})");
    int read_status = 0;
    ErrorPtr error;
    const auto object = ParseJsonResponse(&response, &read_status, &error);
    ASSERT_NE(object, nullptr);
    std::string text;
    EXPECT_TRUE(object->GetString("error", &text));
    EXPECT_EQ(text, "invalid_grant");
    EXPECT_EQ(read_status, status);
    EXPECT_EQ(error, nullptr);
  }
}

TEST(ParseJsonResponse, AnyOtherBodyIsAnErrorThatDoesNotQuoteIt) {
  for (const char* body : {"", "secret", "[\"secret\"]", "\"secret\"", "null",
                           "{\"secret\":", "{\"secret\":1} x", "<html>secret</html>"}) {
    Response response(503, body);
    int status = 0;
    ErrorPtr error;
    EXPECT_EQ(ParseJsonResponse(&response, &status, &error), nullptr) << body;
    EXPECT_EQ(status, 503);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->GetDomain(), "http");
    EXPECT_EQ(error->GetCode(), "invalid_json");
    EXPECT_EQ(error->GetMessage().find("secret"), std::string::npos);
  }
}

TEST(ParseJsonResponse, StatusAndErrorMayBeNull) {
  Response good(200, "{}");
  EXPECT_NE(ParseJsonResponse(&good, nullptr, nullptr), nullptr);
  Response bad(200, "no");
  EXPECT_EQ(ParseJsonResponse(&bad, nullptr, nullptr), nullptr);
}

}  // namespace
}  // namespace kestle::http

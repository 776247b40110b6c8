#include "kestle/dbus_utils/calls.h"

namespace kestle::dbus_utils::internal {

namespace {
constexpr char kTooFew[] = "Too few parameters in a method call";
constexpr char kTooMany[] = "Too many parameters in a method call";
constexpr char kTypeMismatch[] = "Method parameter type mismatch";

bool Check(bool condition, const char* fault, ErrorPtr* error) {
  if (!condition) Error::AddTo(error, kDBusErrorDomain, kInvalidArgs, fault);
  return condition;
}

}  // namespace

std::unique_ptr<dbus::Response> SendAndBlock(dbus::ObjectProxy* proxy, const dbus::MethodCall& call,
                                             int timeout_ms, ErrorPtr* error) {
  std::unique_ptr<dbus::Response> response = proxy->CallMethodAndBlock(call, timeout_ms);
  if (!response) {
    Error::AddTo(error, kDBusErrorDomain, kFailed,
                 "Failed to call D-Bus method: " + call.GetInterface() + "." + call.GetMember());
  } else if (response->IsError()) {
    AddErrorReply(*response, error);
    response.reset();
  }
  return response;
}

void AddErrorReply(const dbus::Response& response, ErrorPtr* error) {
  Error::AddTo(error, kDBusErrorDomain, response.GetErrorName(), response.GetErrorMessage());
}

bool CheckMoreArguments(dbus::MessageReader* reader, ErrorPtr* error) {
  return Check(reader->HasMoreData(), kTooFew, error);
}

bool CheckNoMoreArguments(dbus::MessageReader* reader, ErrorPtr* error) {
  return Check(!reader->HasMoreData(), kTooMany, error);
}

bool CheckTypeMatched(bool matched, ErrorPtr* error) {
  return Check(matched, kTypeMismatch, error);
}

}  // namespace kestle::dbus_utils::internal

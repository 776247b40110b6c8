// Joins several asynchronous tasks: gives each a handler for its result, and reports when all have
// completed.
//
// The handlers may outlive the sequencer.
#pragma once

#include <memory>
#include <string>

#include "base/callback.h"

namespace kestle::dbus_utils {

class AsyncEventSequencer {
 public:
  using CompletionAction = base::Callback<void(bool success)>;

  AsyncEventSequencer();
  AsyncEventSequencer(const AsyncEventSequencer&) = delete;
  AsyncEventSequencer& operator=(const AsyncEventSequencer&) = delete;

  // A handler that one task runs once. With `failure_is_fatal` a failure aborts the process with
  // the message. Precondition: `OnAllTasksCompletedCall` has not been called.
  CompletionAction GetHandler(const std::string& descriptive_message, bool failure_is_fatal);
  // Runs `action` with whether every task succeeded: now if none is pending, else with the last
  // one.
  void OnAllTasksCompletedCall(const CompletionAction& action);

 private:
  struct State;

  const std::shared_ptr<State> state_;
};

}  // namespace kestle::dbus_utils

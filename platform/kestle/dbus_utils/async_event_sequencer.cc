#include "kestle/dbus_utils/async_event_sequencer.h"

#include "base/logging.h"

namespace kestle::dbus_utils {

struct AsyncEventSequencer::State {
  int pending = 0;
  bool all_succeeded = true;
  bool closed = false;
  CompletionAction on_completed;

  void CheckCompleted() const {
    if (pending == 0 && !on_completed.is_null()) on_completed.Run(all_succeeded);
  }
};

AsyncEventSequencer::AsyncEventSequencer() : state_(std::make_shared<State>()) {}

AsyncEventSequencer::CompletionAction AsyncEventSequencer::GetHandler(
    const std::string& descriptive_message, bool failure_is_fatal) {
  CHECK(!state_->closed);
  ++state_->pending;
  return [state = state_, descriptive_message, failure_is_fatal](bool success) {
    if (!success && failure_is_fatal) LOG(FATAL) << descriptive_message;
    state->all_succeeded = state->all_succeeded && success;
    --state->pending;
    state->CheckCompleted();
  };
}

void AsyncEventSequencer::OnAllTasksCompletedCall(const CompletionAction& action) {
  state_->closed = true;
  state_->on_completed = action;
  state_->CheckCompleted();
}

}  // namespace kestle::dbus_utils

#include "base/message_loop.h"

#include <systemd/sd-event.h>

#include <utility>

#include "base/logging.h"

namespace base {

namespace {
thread_local MessageLoop* g_current = nullptr;
}  // namespace

void EventSourceDeleter::operator()(sd_event_source* source) const {
  sd_event_source_disable_unref(source);
}

MessageLoop::MessageLoop() : MessageLoop(kNotCurrent) { g_current = this; }

MessageLoop::MessageLoop(NotCurrent) {
  CHECK(sd_event_new(&event_) >= 0) << "Unable to create the event loop";
}

MessageLoop::~MessageLoop() {
  if (g_current == this) g_current = nullptr;
  task_source_.reset();
  sd_event_unref(event_);
}

MessageLoop* MessageLoop::Current() {
  CHECK(g_current != nullptr) << "No message loop in this thread";
  return g_current;
}

MessageLoop* MessageLoop::SetCurrent(MessageLoop* loop) { return std::exchange(g_current, loop); }

int MessageLoop::Run() {
  const int result = sd_event_loop(event_);
  CHECK(result >= 0) << "The event loop failed: error " << -result;
  return result;
}

void MessageLoop::Quit(int exit_code) { sd_event_exit(event_, exit_code); }

bool MessageLoop::HasEnded() const { return sd_event_get_state(event_) == SD_EVENT_FINISHED; }

void MessageLoop::RunOnce(TimeDelta timeout) {
  sd_event_run(event_, static_cast<uint64_t>(timeout.InMicroseconds()));
}

void MessageLoop::PostTask(const Callback<void()>& task) {
  if (HasEnded()) return;
  tasks_.push_back(task);
  if (!task_source_) ScheduleTask();
}

// With a new source for each task: sd-event dispatches the source that has been pending longest,
// and a source for all tasks would count as pending since its creation.
void MessageLoop::ScheduleTask() {
  sd_event_source* source = nullptr;
  CHECK(sd_event_add_defer(event_, &source, &MessageLoop::OnTask, this) >= 0);
  task_source_.reset(source);
}

int MessageLoop::OnTask(sd_event_source* /*source*/, void* loop) {
  // One task per iteration, so that tasks that post tasks do not starve timers, D-Bus and HTTP.
  auto* const self = static_cast<MessageLoop*>(loop);
  const Callback<void()> task = std::move(self->tasks_.front());
  self->tasks_.pop_front();
  self->task_source_.reset();
  if (!self->tasks_.empty()) self->ScheduleTask();
  task.Run();
  return 0;
}

}  // namespace base

#include "kestle/dbus_utils/async_event_sequencer.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>

namespace kestle::dbus_utils {
namespace {

class AsyncEventSequencerTest : public ::testing::Test {
 protected:
  void Join() {
    sequencer_->OnAllTasksCompletedCall([this](bool success) {
      EXPECT_FALSE(result_.has_value()) << "completed twice";
      result_ = success;
    });
  }

  std::unique_ptr<AsyncEventSequencer> sequencer_ = std::make_unique<AsyncEventSequencer>();
  std::optional<bool> result_;
};

TEST_F(AsyncEventSequencerTest, WithoutTasksItCompletesImmediately) {
  Join();
  EXPECT_EQ(result_, true);
}

TEST_F(AsyncEventSequencerTest, TheLastTaskCompletesIt) {
  const auto first = sequencer_->GetHandler("first", true);
  const auto second = sequencer_->GetHandler("second", true);
  first.Run(true);
  Join();
  EXPECT_FALSE(result_.has_value());
  second.Run(true);
  EXPECT_EQ(result_, true);
}

TEST_F(AsyncEventSequencerTest, ANonFatalFailureIsReportedOnCompletion) {
  sequencer_->GetHandler("first", false).Run(false);
  sequencer_->GetHandler("second", false).Run(true);
  Join();
  EXPECT_EQ(result_, false);
}

TEST_F(AsyncEventSequencerTest, AHandlerOutlivesTheSequencer) {
  const auto handler = sequencer_->GetHandler("late", true);
  Join();
  sequencer_.reset();
  handler.Run(true);
  EXPECT_EQ(result_, true);
}

TEST_F(AsyncEventSequencerTest, AFatalFailureEndsTheProcessWithItsMessage) {
  const auto handler = sequencer_->GetHandler("The thing failed.", true);
  EXPECT_DEATH(handler.Run(false), "\\] The thing failed\\.\n");
}

}  // namespace
}  // namespace kestle::dbus_utils

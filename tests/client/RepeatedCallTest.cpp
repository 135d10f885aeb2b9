#include "RepeatedCall.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <deque>

namespace qel
{

using ::testing::HasSubstr;

TEST(RepeatedCall, WhoseTimeIsUpTellsWhatTheAttemptBeforeWasRefusedFor)
{
    std::deque<grpc::Status> answers = {
        {grpc::StatusCode::UNAVAILABLE, "not sent: no broker"}, {grpc::StatusCode::DEADLINE_EXCEEDED, "time is up"}};
    const grpc::Status status = CallRepeatedly(
        [&](grpc::ClientContext&)
        {
            grpc::Status answer = answers.front();
            answers.pop_front();
            return answer;
        },
        std::chrono::hours(1));
    EXPECT_EQ(grpc::StatusCode::DEADLINE_EXCEEDED, status.error_code());
    EXPECT_THAT(status.error_message(), HasSubstr("time is up"));
    EXPECT_THAT(status.error_message(), HasSubstr("not sent: no broker"));
}

} // namespace qel

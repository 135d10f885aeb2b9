#pragma once

#include "BackOff.h"
#include "qel/Client.h"
#include "qel/apps/v1/applications.grpc.pb.h"

#include <chrono>

namespace qel
{

/** PublishLoop publishes one message, again and again until the broker has it, the deadline is over or it is refused.
 */
class PublishLoop
{
  public:
    PublishLoop(apps::v1::Applications::Stub& stub, const Publication& publication, std::chrono::milliseconds deadline);

    /** @throws PublishError */
    void Run();

  private:
    grpc::Status Attempt();

    apps::v1::Applications::Stub& m_stub;
    const std::chrono::system_clock::time_point m_deadline;
    apps::v1::PublishRequest m_request;
    BackOff m_pauses{std::chrono::milliseconds(50), std::chrono::milliseconds(1000)};
};

} // namespace qel

#pragma once

#include "qel/Client.h"
#include "qel/apps/v1/applications.grpc.pb.h"

#include <chrono>

namespace qel
{

/** See Client::Publish(). @throws PublishError */
void Publish(apps::v1::Applications::Stub& stub, const Publication& publication, std::chrono::milliseconds deadline);

/** See Client::RequestConfiguration(). @throws ConfigurationError */
Configuration RequestConfiguration(apps::v1::Applications::Stub& stub, std::chrono::milliseconds deadline);

} // namespace qel

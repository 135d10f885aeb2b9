#pragma once

#include "qel/Client.h"
#include "qel/apps/v1/applications.pb.h"

#include <string>

namespace qel
{

/** Takes the delivery apart: its texts are moved. */
Message FromProto(apps::v1::Delivery& delivery);
BrokerState FromProto(const apps::v1::Broker& broker);
Configuration FromProto(const apps::v1::Configuration& configuration);
Welcome FromProto(const apps::v1::Welcome& welcome);
apps::v1::PublishRequest ToProto(const Publication& publication);

/** A verdict's reason as the agent takes it: UTF-8, and cut where it is too long. */
std::string ReasonText(const std::string& text);

} // namespace qel

#pragma once

#include "broker/Journal.h"
#include "common/RmqMessage.h"

#include <string>
#include <vector>

namespace VtxQel
{

/** The first 16 hexadecimal digits of the SHA-256 of the bytes: how a configuration is named everywhere. */
std::string ConfigurationHash(const RmqBody& body);

/** A name for a set of routes, in whatever order they come; their application and state do not count. */
std::string RoutesHash(const std::vector<RouteRecord>& routes);

} // namespace VtxQel

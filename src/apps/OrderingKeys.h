#pragma once

#include "apps/KeyedInstances.h"
#include "common/Delivery.h"

#include <string>

namespace VtxQel
{

/** Whether a drop-in may say this: nothing, "routing_key" or "header:NAME". */
bool IsOrderingKeySource(const std::string& source);

/** The key that the source finds in a message. Of headers, text and whole numbers count. */
OrderingKey OrderingKeyOf(const std::string& source, const Delivery& message);

} // namespace VtxQel

#pragma once

#include "common/RmqMessage.h"

#include <cstddef>

namespace VtxQel
{

/**
 * The memory that the headers among the properties take, which the publisher decides: decoded they are many times
 * larger than the bytes in which they come, so whoever bounds what is held has to count them.
 */
std::size_t FootprintOf(const RmqProperties& properties);

} // namespace VtxQel

#pragma once

#include <cstddef>
#include <cstdint>

namespace VtxQel
{

/** More than a hundred thousand topics with the longest names that there are. */
inline constexpr std::size_t MOST_CONFIGURATION_BYTES = 33554432;
inline constexpr std::size_t MOST_CONFIGURATION_ENTRIES = 250000;

/**
 * Looks at the encoded body of an application init configuration before it is decoded: two bytes make an entry of
 * fifty, so that a body which the broker lets through could take gigabytes, and a million entries would keep other
 * applications' configurations waiting for an hour.
 * @throws RmqMessageException saying what there is too much of. What makes no sense is left to the decoder.
 */
void CheckConfigurationSize(const std::uint8_t* bytes, std::size_t length);

} // namespace VtxQel

#pragma once

#include <cstddef>

namespace VtxQel
{

/** What ended a connection to the broker. */
enum class EndCause : std::size_t
{
    /** The socket failed or was closed. */
    network,
    /** Nothing was heard for too long. */
    silence,
    /** The broker closed it in order. */
    broker,
    /** What came made no sense, or was over a limit. */
    protocol,
    /** The broker did not answer a request. */
    unanswered,
    /** We left it for another broker. */
    moved,
    /** The loop probe did not come back. */
    probe
};
constexpr std::size_t END_CAUSE_COUNT = 7;

} // namespace VtxQel

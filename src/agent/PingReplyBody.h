#pragma once

#include "admin/AgentStatus.h"

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace VtxQel
{

/** Error texts of others are cut at this many bytes. */
constexpr std::size_t LONGEST_ERROR_TEXT = 500;
/** A ping's reply has at most this many bytes of body. */
constexpr std::size_t LARGEST_PING_REPLY = 65536;

/** What the management plane learns from a ping. */
struct PingReport
{
    std::string id;
    std::string version;
    Seconds uptime{0};
    std::vector<std::string> notReady;
    /** By application. */
    std::vector<std::pair<std::string, ConfigurationFigures>> configurations;
};

/** The report as JSON within the bound: applications that do not fit are left out from the end and counted. */
std::string PingReplyBody(PingReport report);

} // namespace VtxQel

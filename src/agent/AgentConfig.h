#pragma once

#include "agent/ConfigurationRequests.h"
#include "apps/Setting.h"
#include "broker/BrokerSettings.h"

#include <chrono>
#include <stdexcept>
#include <string>
#include <vector>

namespace VtxQel
{

/** What the agent's configuration file says, defaults filled in. */
struct AgentConfig
{
    std::string id;
    std::string stateDirectory;
    std::string runtimeDirectory;
    BrokerSettings broker;
    ManagementAddress management;
    std::chrono::seconds reassignWithin{180};
    std::string applicationsDirectory;
    int logLevel = 4;
    std::string logFormat;
    /** Where the admin endpoint listens beside its socket; nowhere when empty. */
    std::string adminListen;
    /** Every key of the file, in the order of the documentation; passwords in URLs are masked. */
    std::vector<Setting> settings;
    /** Where the password was read; empty when there is none, or it stands in a URL. */
    std::string passwordFile;
    /** What is allowed but probably not meant, as lines for people. */
    std::vector<std::string> warnings;
};

/** The file cannot be used: one line for each problem, with file, line, column and cure. */
class ConfigError : public std::runtime_error
{
  public:
    using std::runtime_error::runtime_error;
};

/**
 * Reads the TOML file and the files of secrets that it names. Strict: a key that is not known is an error.
 * @throws ConfigError
 */
AgentConfig LoadAgentConfig(const std::string& file);

} // namespace VtxQel

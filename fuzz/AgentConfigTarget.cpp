// The agent's TOML configuration: either sound in every value, or refused with a line for each problem.

#include "Bytes.h"
#include "MemoryFile.h"
#include "Require.h"
#include "agent/AgentConfig.h"
#include "broker/BrokerUrl.h"

#include <sstream>

#include <stdlib.h>

namespace VtxQel::Fuzz
{
namespace
{

/** Configurations name files, and some of the system's never end or wait for a peer. */
bool NamesDevices(const std::string& text)
{
    return text.find("/dev") != std::string::npos || text.find("/proc") != std::string::npos ||
           text.find("/sys") != std::string::npos;
}

bool IsWithin(std::int64_t number, std::int64_t least, std::int64_t most)
{
    return least <= number && number <= most;
}

void CheckConfig(const AgentConfig& config)
{
    const BrokerSettings& broker = config.broker;
    Require(IsWithin(static_cast<std::int64_t>(config.id.size()), 1, 128), "the id has 1 to 128 bytes");
    for (const std::string& name :
         {broker.names.exchange, broker.names.clientQueue, broker.names.priorityQueue, broker.names.deadLetterQueue})
    {
        Require(IsWithin(static_cast<std::int64_t>(name.size()), 1, 255), "names have 1 to 255 bytes");
    }
    Require(broker.names.clientQueue != broker.names.priorityQueue, "the two queues differ");
    Require(!broker.link.urls.empty(), "there is a URL");
    for (const std::string& url : broker.link.urls)
    {
        BrokerUrl::Parse(url);
    }
    Require(broker.prefetch > 0, "the prefetch is not unlimited");
    Require(IsWithin(static_cast<std::int64_t>(broker.maxHeldBytes), 1048576, 1099511627776), "bytes are bounded");
    Require(IsWithin(broker.link.heartbeat.count(), 1, 3600), "there are heartbeats");
    Require(IsWithin(config.reassignWithin.count(), 0, 3600), "the time to reassign is bounded");
    Require(IsWithin(config.logLevel, 0, 7), "the log level exists");
    for (const std::string& warning : config.warnings)
    {
        Require(IsOneLine(warning), "a warning is one line");
    }
}

void CheckError(const std::string& file, const std::string& error)
{
    Require(!error.empty(), "there is a reason");
    std::istringstream lines(error);
    for (std::string line; std::getline(lines, line);)
    {
        Require(line.starts_with(file + ":"), "a problem's line names the file");
        Require(IsOneLine(line), "a problem is one line");
    }
}

} // namespace
} // namespace VtxQel::Fuzz

// NOLINTNEXTLINE(readability-identifier-naming): the fuzzer's name
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace VtxQel;
    static Fuzz::MemoryFile file;
    // To read the system's authorities each time would take more than everything else.
    static const int none = setenv("SSL_CERT_FILE", "/dev/null", 1);
    Fuzz::Require(none == 0, "the environment can be set");
    const std::string text = Fuzz::Bytes(data, size).Rest();
    if (Fuzz::NamesDevices(text))
    {
        return 0;
    }
    file.Write(text);
    try
    {
        Fuzz::CheckConfig(LoadAgentConfig(file.Name()));
    }
    catch (const ConfigError& error)
    {
        Fuzz::CheckError(file.Name(), error.what());
    }
    return 0;
}

#pragma once

#include "Findings.h"
#include "agent/AgentConfig.h"
#include "apps/DropIns.h"

#include <optional>
#include <string>

#include <sys/types.h>

namespace VtxQel
{

/** The agent's configuration as doctor has read it. */
struct ReadConfiguration
{
    std::string file;
    AgentConfig config;
    DropIns dropIns;
};

/**
 * HostCheckup looks at what the agent needs of its host: directories and files that its user can use and others cannot,
 * sockets, disk and clock. It only looks. The agent's user is the one that owns the state directory.
 */
class HostCheckup
{
  public:
    HostCheckup(const ReadConfiguration& read, Findings& findings);

    /** @param running whether the agent runs: then the runtime directory has to be there. */
    void CheckDirectories(bool running);
    void CheckFiles();
    /** Those of a running agent. */
    void CheckSockets();
    void CheckDisk();
    void CheckClock();

  private:
    void CheckDirectory(const std::string& path, const std::string& cureOfAbsence);
    void CheckReadable(const std::string& path);
    bool MayAgentRead(const std::string& path) const;

    const ReadConfiguration& m_read;
    Findings& m_findings;
    /** Not known when there is no state directory. */
    std::optional<uid_t> m_agentUser;
};

} // namespace VtxQel

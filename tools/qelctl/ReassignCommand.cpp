#include "ReassignCommand.h"

#include "common/MessageTypes.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <iostream>

namespace VtxQel
{

CLI::App* ReassignCommand::Register(CLI::App& root)
{
    CLI::App* verb = root.add_subcommand("reassign", "Hint an agent to move to another of its brokers");
    m_agent.Register(*verb);
    return verb;
}

void ReassignCommand::Run(const GlobalOptions& options)
{
    ManagementSession session(options, "reassign");
    session.Open(false);
    OutgoingMessage hint;
    hint.properties.type = REASSIGN_HINT_TYPE;
    hint.properties.deliveryMode = 2;
    m_agent.Send(session, std::move(hint));
    if (options.json)
    {
        const nlohmann::ordered_json line = {{"agent", m_agent.id}, {"queue", m_agent.Queue()}, {"confirmed", true}};
        std::cout << line.dump() << std::endl;
        return;
    }
    std::cout << "reassign hint for " << m_agent.id << " is in " << m_agent.Queue() << " (confirmed by the broker)"
              << std::endl;
}

} // namespace VtxQel

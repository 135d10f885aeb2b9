#include "ConfigureCommand.h"

#include "ApplicationName.h"
#include "ConfigurationFile.h"
#include "common/MessageTypes.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <iostream>

namespace VtxQel
{

namespace
{

using brelix::vtx::messaging::appinit::AppInitConfigMsg;

} // namespace

CLI::App* ConfigureCommand::Register(CLI::App& root)
{
    CLI::App* verb = root.add_subcommand("configure", "Give an application of an agent its topics and queues");
    m_agent.Register(*verb);
    verb->add_option("application", m_application, "The application's name")
        ->required()
        ->check(ApplicationNameValidator())
        ->type_name("APP");
    verb->add_option("file", m_file, "The configuration in JSON, - for the standard input")
        ->required()
        ->type_name("FILE");
    verb->add_flag("--check", m_checkOnly, "Only check the file; no broker is needed");
    return verb;
}

void ConfigureCommand::Run(const GlobalOptions& options)
{
    const AppInitConfigMsg message = ReadConfiguration(m_file);
    if (!m_checkOnly)
    {
        Send(options, message);
    }
    Report(options.json, message);
}

void ConfigureCommand::Send(const GlobalOptions& options, const AppInitConfigMsg& message) const
{
    ManagementSession session(options, "configure");
    session.Open(false);
    OutgoingMessage outgoing;
    outgoing.properties.type = APP_INIT_CONFIG_TYPE;
    outgoing.properties.appId = m_application;
    outgoing.properties.deliveryMode = 2;
    outgoing.body = message.SerializeAsString();
    m_agent.Send(session, std::move(outgoing));
}

void ConfigureCommand::Report(bool json, const AppInitConfigMsg& message) const
{
    if (json)
    {
        nlohmann::ordered_json line = {
            {"agent", m_agent.id},
            {"application", m_application},
            {"topics", message.topic_info_size()},
            {"queues", message.queue_name_size()},
            {"confirmed", !m_checkOnly}};
        std::cout << line.dump() << std::endl;
        return;
    }
    std::cout << "configuration of " << m_application << " (" << message.topic_info_size() << " topics, "
              << message.queue_name_size() << " queues) "
              << (m_checkOnly ? "is well-formed" : "is in " + m_agent.Queue() + " (confirmed by the broker)")
              << std::endl;
}

} // namespace VtxQel

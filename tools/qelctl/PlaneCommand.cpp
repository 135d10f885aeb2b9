#include "PlaneCommand.h"

#include "qel/StopOnSignals.h"

#include <CLI/CLI.hpp>

#include <iostream>

namespace VtxQel
{

CLI::App* PlaneCommand::Register(CLI::App& root)
{
    CLI::App* verb = root.add_subcommand("plane", "Be a management plane: configure agents from files");
    verb->add_option("directory", m_directory, "Watched for AGENT/APP.json")->required()->type_name("DIR");
    CLI::Option* exchange =
        verb->add_option(
                "--exchange", m_address.exchange, "The agents' management.exchange (default: the default exchange)")
            ->type_name("NAME");
    verb->add_option("--routing-key", m_address.routingKey, "Their management.routing_key (default qel.plane)")
        ->type_name("KEY");
    verb->add_option(
            "--queue", m_address.queue, "With --exchange: what the requests' queue is called (default qel.plane)")
        ->needs(exchange)
        ->type_name("QUEUE");
    return verb;
}

void PlaneCommand::Run(const GlobalOptions& options)
{
    PlaneServer server(m_directory, m_address);
    const qel::StopOnSignals signals([&server] { server.Stop(); });
    server.Run(options, std::cout);
}

} // namespace VtxQel

#include "DiagnosticsCommand.h"

#include "Failure.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>

#include <sys/utsname.h>

namespace VtxQel
{

namespace
{

using Json = nlohmann::ordered_json;

Json HostFacts()
{
    utsname names{};
    ::uname(&names);
    const std::string system(static_cast<const char*>(names.sysname));
    const std::string release(static_cast<const char*>(names.release));
    const std::string machine(static_cast<const char*>(names.machine));
    return {{"system", system}, {"release", release}, {"machine", machine}, {"qelctl", QEL_VERSION}};
}

} // namespace

CLI::App* DiagnosticsCommand::Register(CLI::App& root)
{
    CLI::App* verb = root.add_subcommand("diagnostics", "Collect the agent's state in a file to send to others");
    m_admin.Register(*verb);
    verb->add_option("FILE", m_file, "Where to write it (JSON); it must not exist")->required();
    return verb;
}

void DiagnosticsCommand::Run(const GlobalOptions& options)
{
    Json bundle = {{"host", HostFacts()}};
    bundle["status"] = Json::parse(m_admin.Fetch("/status", options.Timeout()));
    bundle["readiness"] = m_admin.Get("/readyz", options.Timeout()).body;
    bundle["routes"] = Json::parse(m_admin.Fetch("/routes?limit=500", options.Timeout()));
    bundle["metrics"] = m_admin.Fetch("/metrics", options.Timeout());

    if (std::ifstream(m_file))
    {
        throw Failure(m_file + " exists: name another file, or remove it");
    }
    std::ofstream file(m_file);
    file << bundle.dump(2, ' ', false, Json::error_handler_t::replace) << std::endl;
    if (!file)
    {
        throw Failure(m_file + " cannot be written: " + std::strerror(errno));
    }
    if (options.json)
    {
        std::cout << Json{{"file", m_file}}.dump() << std::endl;
        return;
    }
    std::cout << "written to " << m_file
              << ": the agent's state, metrics and routes. It holds the names of topics, queues "
              << "and hosts, but no password, key or message" << std::endl;
}

} // namespace VtxQel

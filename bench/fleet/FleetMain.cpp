// qel_fleet FOLDER: runs a simulated agent for each configuration (*.toml) in the folder. Reads commands from the
// standard input, one a line, and answers each with one line of JSON:
//   start SECONDS   starts the agents, evenly over the time
//   figures         what they have lived through; moments are seconds of the steady clock
//   stop            ends them in order and the process with them; so does the input's end

#include "Fleet.h"
#include "agent/LogOutput.h"
#include "agent/MemoryTrimmer.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <csignal>
#include <cstdio>
#include <iostream>
#include <sstream>
#include <string>

namespace
{

using namespace VtxQel;
using Json = nlohmann::json;

Json SecondsOf(const std::optional<FleetAgentFigures::Moment>& moment)
{
    return moment ? Json(std::chrono::duration<double>(moment->time_since_epoch()).count()) : Json();
}

Json Describe(const FleetAgentFigures& figures)
{
    return {
        {"serving", figures.serving},
        {"restorations", figures.restorations},
        {"disconnections", figures.disconnections},
        {"last_restored", SecondsOf(figures.lastRestored)},
        {"last_disconnected", SecondsOf(figures.lastDisconnected)},
        {"moves", figures.moves},
        {"failed_moves", figures.failedMoves},
        {"last_error", figures.lastError}};
}

Json Describe(const std::vector<FleetAgentFigures>& all)
{
    Json described = Json::array();
    for (const FleetAgentFigures& figures : all)
    {
        described.push_back(Describe(figures));
    }
    return described;
}

void Reply(const Json& reply)
{
    // What a broker said may be no UTF-8.
    std::cout << reply.dump(-1, ' ', false, Json::error_handler_t::replace) << std::endl;
}

void Obey(Fleet& fleet)
{
    std::string line;
    while (std::getline(std::cin, line) && line != "stop")
    {
        std::istringstream words(line);
        std::string command;
        double seconds = 0;
        words >> command >> seconds;
        if (command == "start")
        {
            fleet.Start(std::chrono::milliseconds(static_cast<std::int64_t>(seconds * 1000)));
            Reply({{"started", fleet.Size()}});
        }
        else if (command == "figures")
        {
            Reply(Describe(fleet.Figures()));
        }
        else
        {
            Reply({{"error", "not a command: " + line}});
        }
    }
    fleet.Stop();
    Reply({{"stopped", fleet.Size()}});
}

} // namespace

int main(int argc, char** argv)
{
    CLI::App app("qel_fleet: the broker sides of many agents in one process");
    std::string folder;
    std::size_t topics = 50;
    int level = vtx::LevelError;
    app.add_option("folder", folder, "Folder with an agent's configuration (*.toml) for each")->required();
    app.add_option("--topics", topics, "Topics bound for each agent")->capture_default_str();
    app.add_option("--log-level", level, "As log.level of an agent")->capture_default_str();
    CLI11_PARSE(app, argc, argv);
    TuneAllocator();
    std::signal(SIGPIPE, SIG_IGN);
    vtx::Logger::logLevel = level;
    StartLogOutput("text");
    try
    {
        Fleet fleet(folder, topics);
        Reply({{"agents", fleet.Size()}});
        Obey(fleet);
    }
    catch (const std::exception& error)
    {
        std::fprintf(stderr, "qel_fleet: %s\n", error.what());
        return 1;
    }
    return 0;
}

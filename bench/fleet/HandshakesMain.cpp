// qel_handshakes URL: how many connections a second a broker opens and closes again. Prints one line of JSON.

#include "Handshakes.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <cstdio>
#include <ctime>
#include <exception>
#include <string>

int main(int argc, char** argv)
{
    using namespace VtxQel;
    CLI::App app("qel_handshakes: opens and closes connections to a broker as fast as it lets us");
    LinkSettings settings;
    std::string url;
    std::size_t atATime = 50;
    double seconds = 10;
    app.add_option("url", url, "AMQP URL of the broker")->required();
    app.add_option("--at-a-time", atATime, "Connections at a time")->check(CLI::PositiveNumber)->capture_default_str();
    app.add_option("--seconds", seconds, "How long")->check(CLI::PositiveNumber)->capture_default_str();
    app.add_option("--ca-file", settings.tls.caFile, "Authorities that the certificate is checked against");
    CLI11_PARSE(app, argc, argv);
    settings.urls = {url};
    settings.connectionName = "qel_handshakes";
    try
    {
        Handshakes handshakes(settings);
        const auto figures =
            handshakes.Run(atATime, std::chrono::milliseconds(static_cast<std::int64_t>(seconds * 1000)));
        const double processorSeconds = static_cast<double>(std::clock()) / CLOCKS_PER_SEC;
        std::printf(
            "%s\n",
            nlohmann::json{
                {"opened", figures.opened},
                {"failed", figures.failed},
                {"seconds", figures.time.count()},
                {"processor_seconds", processorSeconds}}
                .dump()
                .c_str());
    }
    catch (const std::exception& error)
    {
        std::fprintf(stderr, "qel_handshakes: %s\n", error.what());
        return 1;
    }
    return 0;
}

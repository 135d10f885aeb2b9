// Says what the library tells an application: probe APPLICATION WINDOW
//
// Each line of its input is a command: `request`, or `publish BYTES EXCHANGE ROUTING-KEY [CUSTOMER]`, whose outcome it
// prints.
#include <array>
#include <iostream>
#include <qel/Client.h>
#include <qel/StopOnSignals.h>
#include <sstream>
#include <string>
#include <thread>

namespace
{

/** Whole lines, from several threads. */
void Say(const std::string& line)
{
    std::cout << line + "\n" << std::flush;
}

std::string Name(qel::Configuration::State state)
{
    constexpr std::array names{"MISSING", "APPLYING", "APPLIED", "FAILED"};
    return names.at(static_cast<std::size_t>(state));
}

std::string Name(qel::BrokerState state)
{
    constexpr std::array names{"DISCONNECTED", "CONNECTED", "BLOCKED"};
    return names.at(static_cast<std::size_t>(state));
}

std::string Name(qel::PublishError::Kind kind)
{
    constexpr std::array names{"NoRoute", "Refused", "Unconfirmed"};
    return names.at(static_cast<std::size_t>(kind));
}

std::string Name(qel::ConfigurationError::Kind kind)
{
    constexpr std::array names{"NoPlane", "NotSetUp", "TooSoon", "NotConfirmed"};
    return names.at(static_cast<std::size_t>(kind));
}

qel::Options Telling(const char* window)
{
    qel::Options options;
    options.window = static_cast<std::uint32_t>(std::stoul(window));
    options.onWelcome = [](const qel::Welcome& welcome)
    {
        Say("welcome " + welcome.application + " " + std::to_string(welcome.window) + " " + welcome.orderingKey + " " +
            Name(welcome.configuration.state) + " " + Name(welcome.broker));
    };
    options.onConfiguration = [](const qel::Configuration& configuration)
    {
        std::string line = "configuration " + Name(configuration.state);
        for (const std::string& topic : configuration.topics)
        {
            line += " " + topic;
        }
        Say(line);
    };
    options.onBroker = [](qel::BrokerState state) { Say("broker " + Name(state)); };
    return options;
}

void TellMessage(const qel::Message& message)
{
    const qel::HeaderValue* customer = qel::Find(message.properties.headers, "customer");
    Say("message " + message.routingKey + " " + (customer == nullptr ? "" : std::get<std::string>(customer->value)) +
        " " + std::to_string(message.body.size()));
}

void Publish(qel::Client& client, std::istringstream& words)
{
    std::size_t size = 0;
    std::string customer;
    qel::Publication publication;
    words >> size >> publication.exchange >> publication.routingKey;
    if (words >> customer)
    {
        publication.properties.headers.push_back({"customer", {customer}});
    }
    if (publication.exchange == "-")
    {
        publication.exchange.clear();
    }
    publication.body.assign(size, 'x');
    client.Publish(publication);
    Say("published " + std::to_string(size));
}

void Obey(qel::Client& client, const std::string& line)
{
    std::istringstream words(line);
    std::string command;
    words >> command;
    try
    {
        if (command == "request")
        {
            Say("in force " + Name(client.RequestConfiguration().state));
            return;
        }
        Publish(client, words);
    }
    catch (const qel::ConfigurationError& error)
    {
        Say("error " + Name(error.GetKind()) + " " + error.what());
    }
    catch (const qel::PublishError& error)
    {
        Say("error " + Name(error.GetKind()) + " " + error.what());
    }
}

} // namespace

int main(int, char** arguments)
{
    qel::Client client(arguments[1], Telling(arguments[2]));
    const qel::StopOnSignals signals([&client] { client.Stop(); });
    std::thread commands(
        [&client]
        {
            for (std::string line; std::getline(std::cin, line);)
            {
                Obey(client, line);
            }
        });
    try
    {
        client.Run(TellMessage);
    }
    catch (const qel::AttachError& error)
    {
        Say(std::string("error AttachError ") + error.what());
    }
    // Its input may stay open.
    commands.detach();
    std::quick_exit(0);
}

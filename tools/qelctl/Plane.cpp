#include "Plane.h"

#include "ApplicationName.h"
#include "ConfigurationFile.h"
#include "common/MessageTypes.h"
#include "common/Printable.h"

#include <nlohmann/json.hpp>

#include <exception>
#include <string_view>
#include <utility>

namespace VtxQel
{

namespace
{

using Json = nlohmann::ordered_json;

constexpr std::string_view clientQueuePrefix = "qel.client.";
constexpr std::size_t mostUnanswered = 10000;

std::string Of(const std::pair<std::string, std::string>& whose)
{
    return whose.second + " of " + whose.first;
}

Json Line(const char* event, const std::pair<std::string, std::string>& whose)
{
    return {{"event", event}, {"agent", whose.first}, {"application", whose.second}};
}

} // namespace

Plane::Plane(std::string folder, std::string user, Send send, std::ostream& out, bool json)
    : m_folder(std::move(folder)), m_user(std::move(user)), m_send(std::move(send)), m_out(out), m_json(json)
{
}

void Plane::Take(const ConfigurationChange& change)
{
    const Whose whose(change.agent, change.application);
    if (!change.removed)
    {
        Read(whose, change.file);
        return;
    }
    m_configurations.erase(whose);
    m_unsent.erase(whose);
    m_troubled.erase(whose);
    Json line = Line("removed", whose);
    line["file"] = change.file;
    Print(
        line,
        "removed " + Printable(change.file) + ": nothing is sent, " + Printable(Of(whose)) + " keeps what it has");
}

void Plane::Read(const Whose& whose, const std::string& file)
{
    std::string mistake;
    try
    {
        std::string name = whose.second;
        mistake = ApplicationNameValidator()(name);
        if (mistake.empty())
        {
            m_configurations[whose] = ReadConfiguration(file);
            m_unanswered.erase(whose);
            Deliver(whose, "file");
            return;
        }
        mistake = Printable(file) + ": " + mistake;
    }
    catch (const std::exception& error)
    {
        mistake = error.what();
    }
    Json line = Line("rejected", whose);
    line["file"] = file;
    line["mistake"] = mistake;
    Print(
        line, mistake + (m_configurations.contains(whose) ? ": mend it; until then the configuration before counts"
                                                          : ": mend it; until then nothing is sent"));
}

void Plane::Answer(const RmqProperties& request)
{
    const std::string& queue = request.replyTo;
    if (request.type != APP_INIT_REQUEST_TYPE || !queue.starts_with(clientQueuePrefix))
    {
        Say("ignored",
            "a message of type \"" + request.type + "\" with reply-to \"" + queue +
                "\" is not answered: only sync requests of agents whose client queue is qel.client.AGENT are");
        return;
    }
    const Whose whose(queue.substr(clientQueuePrefix.size()), request.appId);
    if (m_configurations.contains(whose))
    {
        Deliver(whose, "request");
        return;
    }
    if (m_unanswered.size() < mostUnanswered && m_unanswered.insert(whose).second)
    {
        const std::string file = m_folder + "/" + whose.first + "/" + whose.second + ".json";
        Json line = Line("no-file", whose);
        line["file"] = file;
        Print(line, Printable(Of(whose)) + " is asked for, but there is no usable " + Printable(file) + ": write it");
    }
}

void Plane::SendAgain()
{
    for (const Whose& whose : std::exchange(m_unsent, {}))
    {
        Deliver(whose, "file");
    }
}

void Plane::Deliver(const Whose& whose, const std::string& cause)
{
    OutgoingMessage message;
    message.routingKey = std::string(clientQueuePrefix) + whose.first;
    message.properties.type = APP_INIT_CONFIG_TYPE;
    message.properties.appId = whose.second;
    message.properties.deliveryMode = 2;
    message.properties.userId = m_user;
    message.body = m_configurations.at(whose).SerializeAsString();
    message.mandatory = true;
    m_send(
        std::move(message),
        [this, whose, cause](PublishResult result, const std::string& why) { Conclude(whose, cause, result, why); });
}

void Plane::Conclude(const Whose& whose, const std::string& cause, PublishResult result, const std::string& why)
{
    const auto configuration = m_configurations.find(whose);
    if (configuration == m_configurations.end())
    {
        return;
    }
    if (result == PublishResult::confirmed)
    {
        m_troubled.erase(whose);
        const int topics = configuration->second.topic_info_size();
        const int queues = configuration->second.queue_name_size();
        Json line = Line("sent", whose);
        line.update({{"cause", cause}, {"topics", topics}, {"queues", queues}});
        Print(
            line, "sent " + Of(whose) + " (" + std::to_string(topics) + " topics, " + std::to_string(queues) +
                      " queues): " + (cause == "file" ? "its file says so" : "asked for"));
        return;
    }
    std::string what = why;
    if (result == PublishResult::noRoute)
    {
        what = "there is no queue " + std::string(clientQueuePrefix) + whose.first +
               ": the agent has never been connected; it gets its configuration when it asks";
    }
    else if (result != PublishResult::refused)
    {
        m_unsent.insert(whose);
        if (!m_troubled.insert(whose).second)
        {
            return;
        }
        what += ": it is tried again";
    }
    Json line = Line("not-sent", whose);
    line["why"] = what;
    Print(line, "not sent " + Of(whose) + ": " + Printable(what));
}

void Plane::Say(const std::string& event, const std::string& text)
{
    Print({{"event", event}, {"text", text}}, Printable(text));
}

void Plane::Print(Json line, const std::string& text)
{
    m_out << (m_json ? line.dump(-1, ' ', false, Json::error_handler_t::replace) : text) << std::endl;
}

} // namespace VtxQel

// qelctl's configuration files: what is accepted is JSON and reads back the same, what is not says where and why.

#include "Bytes.h"
#include "Require.h"
#include "qelctl/ConfigurationFile.h"

#include <nlohmann/json.hpp>

#include <optional>
#include <sstream>

namespace VtxQel::Fuzz
{
namespace
{

using brelix::vtx::messaging::appinit::AppInitConfigMsg;

constexpr std::size_t MOST_LINES = 21;

void CheckError(const std::string& error)
{
    std::istringstream lines(error);
    std::size_t count = 0;
    for (std::string line; std::getline(lines, line); ++count)
    {
        Require(line.starts_with("web.json:"), "a mistake's line names the file");
        Require(IsOneLine(line), "a mistake is one line");
    }
    Require(count >= 1 && count <= MOST_LINES, "the mistakes are listed within bounds");
}

std::optional<AppInitConfigMsg> Read(const std::string& text)
{
    try
    {
        return ParseConfiguration("web.json", text);
    }
    catch (const ConfigurationError& error)
    {
        CheckError(error.what());
        return {};
    }
}

/** The configuration as somebody would write it. */
std::string Write(const AppInitConfigMsg& message)
{
    nlohmann::json json = {{"topicInfo", nlohmann::json::array()}, {"queueName", nlohmann::json::array()}};
    for (const AppInitConfigMsg::TopicInfo& topic : message.topic_info())
    {
        nlohmann::json entry = {{"topic", topic.topic()}};
        if (topic.has_priority())
        {
            entry["priority"] = topic.priority();
        }
        json["topicInfo"].push_back(std::move(entry));
    }
    for (const std::string& queue : message.queue_name())
    {
        json["queueName"].push_back(queue);
    }
    return json.dump();
}

void CheckMessage(const AppInitConfigMsg& message)
{
    Require(message.IsInitialized(), "every topic has its name");
    for (const AppInitConfigMsg::TopicInfo& topic : message.topic_info())
    {
        Require(topic.topic().size() <= 255, "a topic has at most 255 bytes");
    }
    for (const std::string& queue : message.queue_name())
    {
        Require(!queue.empty() && queue.size() <= 255, "a queue's name has 1 to 255 bytes");
    }
    const std::optional<AppInitConfigMsg> again = Read(Write(message));
    Require(again && again->SerializeAsString() == message.SerializeAsString(), "it reads back the same");
}

} // namespace
} // namespace VtxQel::Fuzz

// NOLINTNEXTLINE(readability-identifier-naming): the fuzzer's name
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace VtxQel::Fuzz;
    const std::string text = Bytes(data, size).Rest();
    if (const auto message = Read(text))
    {
        Require(nlohmann::json::accept(text), "what is accepted is JSON");
        CheckMessage(*message);
    }
    return 0;
}

#include "ConfigurationFile.h"

#include "InputText.h"
#include "JsonTree.h"
#include "common/Printable.h"
#include "common/Suggestion.h"

#include <cstdint>
#include <limits>
#include <set>
#include <vector>

namespace VtxQel
{

namespace
{

using brelix::vtx::messaging::appinit::AppInitConfigMsg;

constexpr std::size_t longestName = 255;
constexpr std::size_t mostMistakes = 20;

/** Walks the tree, fills the message and notes every mistake with its place. */
class Reader
{
  public:
    explicit Reader(const std::string& fileName) : m_fileName(fileName) {}

    AppInitConfigMsg Read(const JsonNode& root)
    {
        AppInitConfigMsg message;
        if (!Is(root, JsonNode::Kind::object, "", "an object with topicInfo and queueName"))
        {
            return message;
        }
        CheckNames(root, "", {{"topicInfo", "topic_info"}, {"queueName", "queue_name"}});
        for (const auto& [name, value] : root.members)
        {
            if (name == "topicInfo" || name == "topic_info")
            {
                ReadTopics(value, name, message);
            }
            else if (name == "queueName" || name == "queue_name")
            {
                ReadQueues(value, name, message);
            }
        }
        return message;
    }

    void Note(Position at, const std::string& field, const std::string& mistake)
    {
        ++m_mistakes;
        if (m_mistakes <= mostMistakes)
        {
            m_text += (m_text.empty() ? "" : "\n") + m_fileName + ":" + std::to_string(at.line) + ":" +
                      std::to_string(at.column) + ": " + Printable((field.empty() ? "" : field + ": ") + mistake);
        }
    }

    void ThrowMistakes() const
    {
        if (m_mistakes > mostMistakes)
        {
            throw ConfigurationError(
                m_text + "\n" + m_fileName + ": and " + std::to_string(m_mistakes - mostMistakes) + " more mistakes");
        }
        if (m_mistakes > 0)
        {
            throw ConfigurationError(m_text);
        }
    }

  private:
    /** A field's name as JSON writes it and as the schema writes it. */
    struct FieldName
    {
        std::string json;
        std::string schema;
    };

    bool Is(const JsonNode& node, JsonNode::Kind kind, const std::string& field, const std::string& wanted)
    {
        if (node.kind != kind)
        {
            Note(node.at, field, "must be " + wanted);
        }
        return node.kind == kind;
    }

    void CheckNames(const JsonNode& object, const std::string& field, const std::vector<FieldName>& known)
    {
        std::set<std::string> seen;
        for (std::size_t i = 0; i < object.members.size(); ++i)
        {
            const std::string& name = object.members[i].name;
            std::string path = field.empty() ? "" : field + ".";
            path += name;
            std::vector<std::string> candidates;
            std::string canonical;
            for (const FieldName& candidate : known)
            {
                candidates.push_back(candidate.json);
                canonical = name == candidate.json || name == candidate.schema ? candidate.json : canonical;
            }
            if (canonical.empty())
            {
                Note(object.names[i], path, "is not known here" + Suggest(name, candidates));
            }
            else if (!seen.insert(canonical).second)
            {
                Note(object.names[i], path, "is given twice");
            }
        }
    }

    void ReadTopics(const JsonNode& list, const std::string& field, AppInitConfigMsg& message)
    {
        if (!Is(list, JsonNode::Kind::array, field, "a list of objects"))
        {
            return;
        }
        for (std::size_t i = 0; i < list.elements.size(); ++i)
        {
            ReadTopic(list.elements[i], field + "[" + std::to_string(i) + "]", *message.add_topic_info());
        }
    }

    void ReadTopic(const JsonNode& node, const std::string& field, AppInitConfigMsg::TopicInfo& topic)
    {
        if (!Is(node, JsonNode::Kind::object, field, "an object with topic and priority"))
        {
            return;
        }
        CheckNames(node, field, {{"topic", "topic"}, {"priority", "priority"}});
        bool hasTopic = false;
        for (const auto& [name, value] : node.members)
        {
            if (name == "topic")
            {
                hasTopic = true;
                topic.set_topic(ReadName(value, field + ".topic"));
            }
            else if (name == "priority")
            {
                topic.set_priority(ReadPriority(value, field + ".priority"));
            }
        }
        if (!hasTopic)
        {
            Note(node.at, field, "has no topic");
        }
    }

    void ReadQueues(const JsonNode& list, const std::string& field, AppInitConfigMsg& message)
    {
        if (!Is(list, JsonNode::Kind::array, field, "a list of queue names"))
        {
            return;
        }
        for (std::size_t i = 0; i < list.elements.size(); ++i)
        {
            const JsonNode& node = list.elements[i];
            const std::string path = field + "[" + std::to_string(i) + "]";
            const std::string name = ReadName(node, path);
            if (node.kind == JsonNode::Kind::string && (name.empty() || name.rfind("amq.", 0) == 0))
            {
                Note(node.at, path, name.empty() ? "must not be empty" : "must not begin with amq., the broker's own");
            }
            message.add_queue_name(name);
        }
    }

    std::string ReadName(const JsonNode& node, const std::string& field)
    {
        if (!Is(node, JsonNode::Kind::string, field, "a string"))
        {
            return "";
        }
        if (node.text.size() > longestName)
        {
            Note(
                node.at, field,
                "must have at most " + std::to_string(longestName) + " bytes, has " + std::to_string(node.text.size()));
        }
        return node.text;
    }

    std::uint32_t ReadPriority(const JsonNode& node, const std::string& field)
    {
        constexpr std::uint64_t most = std::numeric_limits<std::uint32_t>::max();
        if (node.kind != JsonNode::Kind::wholeNumber || node.number > most)
        {
            Note(node.at, field, "must be a whole number from 0 to " + std::to_string(most));
            return 0;
        }
        return static_cast<std::uint32_t>(node.number);
    }

    const std::string m_fileName;
    std::string m_text;
    std::size_t m_mistakes = 0;
};

} // namespace

AppInitConfigMsg ParseConfiguration(const std::string& fileName, const std::string& text)
{
    Reader reader(fileName);
    AppInitConfigMsg message;
    try
    {
        message = reader.Read(ParseJson(text));
    }
    catch (const JsonSyntaxError& error)
    {
        reader.Note(error.at, "", error.what());
    }
    reader.ThrowMistakes();
    return message;
}

AppInitConfigMsg ReadConfiguration(const std::string& file)
{
    return ParseConfiguration(file == "-" ? "(stdin)" : file, ReadInput(file));
}

} // namespace VtxQel

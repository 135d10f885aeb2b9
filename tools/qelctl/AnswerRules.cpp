#include "AnswerRules.h"

#include "Failure.h"
#include "TextForms.h"
#include "apps/TopicTrie.h"
#include "common/Suggestion.h"

#include <algorithm>
#include <map>
#include <memory>

#include <fnmatch.h>

namespace VtxQel
{

namespace
{

using Field = const std::string& (*)(const qel::Message&);

const std::map<std::string, Field> fields = {
    {"app-id", [](const qel::Message& message) -> const std::string& { return message.properties.appId; }},
    {"key", [](const qel::Message& message) -> const std::string& { return message.routingKey; }},
    {"message-id", [](const qel::Message& message) -> const std::string& { return message.properties.messageId; }},
    {"queue", [](const qel::Message& message) -> const std::string& { return message.queue; }},
    {"type", [](const qel::Message& message) -> const std::string& { return message.properties.type; }}};

const std::map<std::string, Answer_e> answers = {
    {"ask", Answer_e::ask}, {"dead", Answer_e::dead}, {"done", Answer_e::done}, {"retry", Answer_e::retry}};

/** The value of that name. @throws UsageError which tells of the nearest. */
template <typename Value>
Value Known(const std::map<std::string, Value>& values, const char* what, const std::string& name)
{
    const auto found = values.find(name);
    if (found != values.end())
    {
        return found->second;
    }
    std::vector<std::string> names;
    names.reserve(values.size());
    for (const auto& [known, value] : values)
    {
        names.push_back(known);
    }
    throw UsageError(std::string("there is no ") + what + " \"" + ForTerminal(name) + "\"" + Suggest(name, names));
}

std::function<bool(const qel::Message&)> Condition(const std::string& name, const std::string& pattern)
{
    const Field field = Known(fields, "field", name);
    if (name != "key")
    {
        return [field, pattern](const qel::Message& message)
        { return fnmatch(pattern.c_str(), field(message).c_str(), 0) == 0; };
    }
    const auto topics = std::make_shared<TopicTrie<bool>>();
    topics->Add(pattern, true);
    return [field, topics](const qel::Message& message)
    {
        bool fits = false;
        topics->Match(field(message), [&fits](bool value) { fits = value; });
        return fits;
    };
}

} // namespace

AnswerRules::AnswerRules(const std::vector<std::string>& rules)
{
    for (const std::string& rule : rules)
    {
        try
        {
            m_rules.push_back(Parse(rule));
        }
        catch (const UsageError& error)
        {
            throw UsageError("--rule \"" + ForTerminal(rule) + "\": " + error.what());
        }
    }
}

AnswerRules::Rule AnswerRules::Parse(const std::string& text)
{
    const std::size_t equals = text.find('=');
    const std::size_t colon = text.rfind(':');
    if (equals == std::string::npos || colon == std::string::npos || colon < equals)
    {
        throw UsageError("write FIELD=PATTERN:ANSWER, for example type=order*:retry or key=#.bad:dead");
    }
    const Answer_e answer = Known(answers, "answer", text.substr(colon + 1));
    return {Condition(text.substr(0, equals), text.substr(equals + 1, colon - equals - 1)), answer};
}

std::optional<Answer_e> AnswerRules::Find(const qel::Message& message) const
{
    const auto found =
        std::find_if(m_rules.begin(), m_rules.end(), [&message](const Rule& rule) { return rule.fits(message); });
    return found == m_rules.end() ? std::nullopt : std::optional(found->answer);
}

bool AnswerRules::Asks() const
{
    return std::any_of(m_rules.begin(), m_rules.end(), [](const Rule& rule) { return rule.answer == Answer_e::ask; });
}

} // namespace VtxQel

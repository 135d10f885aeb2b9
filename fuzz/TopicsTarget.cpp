// Topic patterns and subscriptions against a model that follows the rules word by word. A line of the input is one
// step: what to do, the application, the queue, and a topic, queue or routing key.

#include "Bytes.h"
#include "Require.h"
#include "SubscriptionsModel.h"
#include "TopicRule.h"
#include "apps/Subscriptions.h"
#include "apps/TopicTrie.h"

#include <algorithm>
#include <map>
#include <string>
#include <vector>

namespace VtxQel::Fuzz
{
namespace
{

constexpr std::size_t MOST_STEPS = 300;
constexpr std::size_t LONGEST_TEXT = 300;

/** One line of the input. */
struct Step
{
    explicit Step(const std::string& line)
        : what(line.empty() ? '?' : line[0]), application(line.size() > 1 && line[1] == '2' ? "two" : "one"),
          queue(line.size() > 2 && line[2] == 'u' ? "urgent" : "client"),
          text(line.size() > 3 ? line.substr(3, LONGEST_TEXT) : "")
    {
    }

    char what;
    std::string application;
    std::string queue;
    std::string text;
};

/** A trie beside a plain list of what is in it. */
class Tries
{
  public:
    void Take(const Step& step)
    {
        const int value = step.application == "one" ? 1 : 2;
        if (step.what == 'T')
        {
            m_trie.Add(step.text, value);
            m_plain.emplace_back(step.text, value);
        }
        else if (step.what == 'R')
        {
            m_trie.Remove(step.text, value);
            const auto place = std::find(m_plain.begin(), m_plain.end(), std::pair(step.text, value));
            if (place != m_plain.end())
            {
                m_plain.erase(place);
            }
        }
        Compare(step.text);
    }

  private:
    void Compare(const std::string& key) const
    {
        std::vector<int> found;
        m_trie.Match(key, [&found](int value) { found.push_back(value); });
        std::vector<int> expected;
        for (const auto& [pattern, value] : m_plain)
        {
            if (Matches(pattern, key))
            {
                expected.push_back(value);
            }
        }
        std::sort(found.begin(), found.end());
        std::sort(expected.begin(), expected.end());
        Require(found == expected, "the trie finds the values of the patterns that match");
        Require(m_trie.IsEmpty() == m_plain.empty(), "the trie is empty when nothing is in it");
    }

    TopicTrie<int> m_trie;
    std::vector<std::pair<std::string, int>> m_plain;
};

void Change(Subscriptions& subscriptions, const Step& step)
{
    switch (step.what)
    {
    case 'B':
        subscriptions.BeginConfiguration(step.application);
        break;
    case 'T':
        subscriptions.AddTopic(step.application, step.text, step.queue);
        break;
    case 'Q':
        subscriptions.AddQueue(step.application, step.text);
        break;
    case 'C':
        subscriptions.Commit(step.application);
        break;
    case 'A':
        subscriptions.Abort(step.application, step.text);
        break;
    case 'F':
        subscriptions.Forget(step.application);
        break;
    default:
        break;
    }
}

void Compare(const Subscriptions& subscriptions, const SubscriptionsModel& model, const Step& step)
{
    for (const std::string& queue : {std::string("client"), std::string("urgent"), step.text})
    {
        Receivers found = subscriptions.Resolve(queue, step.text);
        std::sort(found.applications.begin(), found.applications.end());
        const Receivers expected = model.Resolve(queue, step.text);
        Require(found.applications == expected.applications, "the same applications receive it");
        Require(found.servedElsewhere == expected.servedElsewhere, "it is served elsewhere in the same cases");
    }
    const ConfigurationStatus status = subscriptions.Status(step.application);
    const ConfigurationStatus expected = model.Status(step.application);
    Require(status.state == expected.state && status.error == expected.error, "the states are the same");
    Require(status.topics == expected.topics && status.queues == expected.queues, "topics and queues are the same");
    Require(subscriptions.IsConfiguring() == model.IsConfiguring(), "both are configuring or neither");
}

} // namespace
} // namespace VtxQel::Fuzz

// NOLINTNEXTLINE(readability-identifier-naming): the fuzzer's name
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace VtxQel;
    Fuzz::Bytes input(data, size);
    const bool wildcards = input.Octet() != 'd';
    Subscriptions subscriptions("client", "urgent", wildcards);
    Fuzz::SubscriptionsModel model(wildcards);
    Fuzz::Tries tries;
    for (std::size_t count = 0; count < Fuzz::MOST_STEPS && !input.AtEnd(); ++count)
    {
        const Fuzz::Step step(input.Line());
        tries.Take(step);
        Fuzz::Change(subscriptions, step);
        model.Change(step.what, step.application, step.queue, step.text);
        Fuzz::Compare(subscriptions, model, step);
    }
    return 0;
}

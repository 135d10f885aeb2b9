#pragma once

#include "fakes/Journal.h"

#include <functional>
#include <map>
#include <string>
#include <utility>

namespace VtxQel::Fakes
{

/**
 * How a fake answers its calls: `true` but for those calls for which a test set something else. A call is named by the
 * text that it leaves in the journal, arguments included, for example "broker.BindTopic(client, exchange, topic)".
 */
class Answers
{
  public:
    explicit Answers(Journal& journal) : m_journal(journal) {}

    /** What that one call does: return false, throw, look around. Set it before threads start. */
    void On(const std::string& call, std::function<bool()> answer) { m_answers[call] = std::move(answer); }
    void Refuse(const std::string& call)
    {
        On(call, [] { return false; });
    }
    template <class Exception>
    void Throw(const std::string& call, Exception exception)
    {
        On(call, [exception]() -> bool { throw exception; });
    }

    /** Notes the call and answers it. */
    bool To(const std::string& call)
    {
        m_journal.Note(call);
        const auto answer = m_answers.find(call);
        return answer == m_answers.end() || answer->second();
    }

  private:
    Journal& m_journal;
    std::map<std::string, std::function<bool()>> m_answers;
};

} // namespace VtxQel::Fakes

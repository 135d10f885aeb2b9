#pragma once

#include "Answers.h"
#include "qel/Message.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace VtxQel
{

/**
 * AnswerRules says by what stands in a message how it is answered. A rule is FIELD=PATTERN:ANSWER; the first that fits
 * counts. The pattern of `key` is a topic's, with * for a word and # for any number of them; those of the other fields
 * (type, app-id, message-id, queue) are the shell's, with *, ? and [...]. Constant after construction.
 */
class AnswerRules
{
  public:
    /** @throws UsageError that names the wrong rule and the cure. */
    explicit AnswerRules(const std::vector<std::string>& rules);

    /** The answer of the first rule that fits. */
    std::optional<Answer_e> Find(const qel::Message& message) const;
    /** Whether a rule leaves it to the developer. */
    bool Asks() const;

  private:
    struct Rule
    {
        std::function<bool(const qel::Message&)> fits;
        Answer_e answer;
    };

    static Rule Parse(const std::string& text);

    std::vector<Rule> m_rules;
};

} // namespace VtxQel

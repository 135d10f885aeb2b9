#include "Answers.h"

#include "Failure.h"
#include "TextForms.h"

#include <charconv>

namespace VtxQel
{

namespace
{

std::chrono::milliseconds ParseDelay(std::string_view text)
{
    std::chrono::milliseconds::rep number = -1;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size() || number < 0 || number > longestRetryDelay.count())
    {
        throw UsageError(
            "\"" + ForTerminal(std::string(text)) + "\" is not a delay: retry is followed by 0 to " +
            std::to_string(longestRetryDelay.count()) + " milliseconds, or by nothing");
    }
    return std::chrono::milliseconds(number);
}

/** The text without the blanks around it. */
std::string_view Trimmed(std::string_view text)
{
    constexpr std::string_view blanks = " \t\r";
    const std::size_t first = text.find_first_not_of(blanks);
    return first == std::string_view::npos ? "" : text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

} // namespace

qel::Verdict ToVerdict(Answer_e answer, const AnswerDefaults& defaults)
{
    switch (answer)
    {
    case Answer_e::done:
        return qel::Verdict::Done();
    case Answer_e::retry:
        return qel::Verdict::Retry(defaults.retryDelay);
    case Answer_e::dead:
        return qel::Verdict::Dead(defaults.reason);
    case Answer_e::ask:
        break;
    }
    return qel::Verdict::None();
}

qel::Verdict ParseTypedAnswer(std::string_view line, const AnswerDefaults& defaults)
{
    const std::string_view text = Trimmed(line);
    const std::string_view word = text.substr(0, text.find_first_of(" \t"));
    const std::string_view further = Trimmed(text.substr(word.size()));
    if (word == "dead" || word == "d")
    {
        return qel::Verdict::Dead(further.empty() ? defaults.reason : std::string(further));
    }
    if (word == "retry" || word == "r")
    {
        return qel::Verdict::Retry(further.empty() ? defaults.retryDelay : ParseDelay(further));
    }
    if ((word == "done" || word == "ack" || word == "a") && further.empty())
    {
        return qel::Verdict::Done();
    }
    throw UsageError(
        "\"" + ForTerminal(std::string(text)) +
        "\" is no answer: a or done, r or retry [MILLISECONDS], d or dead [REASON], q or quit");
}

} // namespace VtxQel

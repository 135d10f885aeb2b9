#pragma once

#include "qel/Verdict.h"

#include <chrono>
#include <string>
#include <string_view>

namespace VtxQel
{

/** What a developer lets an application say to a message. */
enum class Answer_e
{
    done,
    retry,
    dead,
    /** Whatever the developer types. */
    ask
};

/** What goes with an answer unless something else is typed. */
struct AnswerDefaults
{
    std::string reason;
    std::chrono::milliseconds retryDelay{0};
};

/** The longest that the agent waits before it delivers again. */
constexpr std::chrono::milliseconds longestRetryDelay{900000};

/** What the library is told for an answer; nothing for `ask`. */
qel::Verdict ToVerdict(Answer_e answer, const AnswerDefaults& defaults);

/**
 * What is typed: a word or its first letter, and what goes with it: `done` (or `ack`, `a`), `retry [MILLISECONDS]`,
 * `dead [REASON]`.
 * @throws UsageError that says what can be typed.
 */
qel::Verdict ParseTypedAnswer(std::string_view line, const AnswerDefaults& defaults);

} // namespace VtxQel

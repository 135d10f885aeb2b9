#pragma once

#include "Answers.h"

#include <atomic>
#include <optional>
#include <ostream>
#include <string>

namespace VtxQel
{

/**
 * AnswerPrompt has the developer answer a message: on a terminal by a key, which is asked for, otherwise by a line, for
 * which nothing is printed. Wrong ones are complained about and waited for again.
 *
 * Ask() is for one thread; the rest may be called from any.
 */
class AnswerPrompt
{
  public:
    /** @param input and out must outlive the prompt. */
    AnswerPrompt(int input, std::ostream& out, AnswerDefaults defaults);
    ~AnswerPrompt();
    AnswerPrompt(const AnswerPrompt&) = delete;
    AnswerPrompt& operator=(const AnswerPrompt&) = delete;

    /** Waits for an answer; Verdict::None() when there is none because of Interrupt(), or because it is over. */
    qel::Verdict Ask();
    /** Whether the developer has asked for the end, or the input has come to its own. */
    bool IsOver() const { return m_over; }

    /** Nobody waits for an answer any more: ends Ask(), until Resume(). */
    void Interrupt();
    void Resume();

  private:
    qel::Verdict Decide();
    /** A key or a line; nothing as Ask() says. */
    std::optional<std::string> Read();
    std::optional<std::string> TakeTyped();
    bool WaitForInput() const;

    const int m_input;
    const bool m_terminal;
    const int m_interruption;
    std::ostream& m_out;
    const AnswerDefaults m_defaults;
    std::atomic<bool> m_over{false};
    /** What has been read and is not used yet. */
    std::string m_read;
};

} // namespace VtxQel

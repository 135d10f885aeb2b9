#include "qelctl/AnswerPrompt.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <thread>

#include <fcntl.h>
#include <stdlib.h>
#include <termios.h>
#include <unistd.h>

namespace VtxQel
{

namespace
{

using ::testing::HasSubstr;
using Kind = qel::Verdict::Kind;

/** A terminal: what is written to `keyboard` is typed. */
class AnswerPromptOnATerminal : public ::testing::Test
{
  protected:
    AnswerPromptOnATerminal()
    {
        grantpt(m_keyboard);
        unlockpt(m_keyboard);
        m_terminal = open(ptsname(m_keyboard), O_RDWR | O_NOCTTY | O_CLOEXEC);
    }
    ~AnswerPromptOnATerminal() override
    {
        close(m_terminal);
        close(m_keyboard);
    }

    bool TakesKeys() const
    {
        termios mode{};
        return tcgetattr(m_terminal, &mode) == 0 && (mode.c_lflag & ICANON) == 0;
    }

    /** Types when it is asked for: what was typed before does not count. */
    std::thread Typist(const std::string& keys) const
    {
        return std::thread(
            [this, keys]
            {
                while (!TakesKeys())
                {
                    std::this_thread::yield();
                }
                EXPECT_EQ(write(m_keyboard, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
            });
    }

    const int m_keyboard = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    int m_terminal = -1;
    std::ostringstream m_out;
};

} // namespace

TEST_F(AnswerPromptOnATerminal, AKeyAnswers)
{
    AnswerPrompt prompt(m_terminal, m_out, {"why", std::chrono::milliseconds(5)});
    std::thread typist = Typist("xd");
    const qel::Verdict verdict = prompt.Ask();
    typist.join();
    EXPECT_EQ(verdict.GetKind(), Kind::dead);
    EXPECT_EQ(verdict.Reason(), "why");
    EXPECT_THAT(m_out.str(), HasSubstr("a=done r=retry d=dead q=quit? \"x\" is no answer"));
    EXPECT_FALSE(TakesKeys());
    EXPECT_FALSE(prompt.IsOver());
}

TEST_F(AnswerPromptOnATerminal, AKeyEndsIt)
{
    AnswerPrompt prompt(m_terminal, m_out, {});
    std::thread typist = Typist("q");
    EXPECT_EQ(prompt.Ask().GetKind(), Kind::none);
    typist.join();
    EXPECT_TRUE(prompt.IsOver());
}

TEST_F(AnswerPromptOnATerminal, NobodyWaitsForAnAnswerThatIsNotWantedAnyMore)
{
    AnswerPrompt prompt(m_terminal, m_out, {});
    prompt.Interrupt();
    EXPECT_EQ(prompt.Ask().GetKind(), Kind::none);
    EXPECT_FALSE(prompt.IsOver());
    prompt.Resume();
    std::thread typist = Typist("r");
    EXPECT_EQ(prompt.Ask().GetKind(), Kind::retry);
    typist.join();
}

} // namespace VtxQel

#include "AnswerPrompt.h"

#include "Failure.h"

#include <array>
#include <cerrno>
#include <utility>

#include <poll.h>
#include <sys/eventfd.h>
#include <termios.h>
#include <unistd.h>

namespace VtxQel
{

namespace
{

constexpr char endOfTransmission = '\x04';

/** Has a terminal give each key at once and unseen, and forget what was typed before there was anything to answer. */
class KeyMode
{
  public:
    explicit KeyMode(int terminal) : m_terminal(terminal)
    {
        m_changed = tcgetattr(terminal, &m_before) == 0;
        termios keys = m_before;
        keys.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
        keys.c_cc[VMIN] = 1;
        keys.c_cc[VTIME] = 0;
        m_changed = m_changed && tcsetattr(terminal, TCSAFLUSH, &keys) == 0;
    }
    ~KeyMode()
    {
        if (m_changed)
        {
            tcsetattr(m_terminal, TCSANOW, &m_before);
        }
    }
    KeyMode(const KeyMode&) = delete;
    KeyMode& operator=(const KeyMode&) = delete;

  private:
    const int m_terminal;
    termios m_before{};
    bool m_changed = false;
};

const char* NameOf(const qel::Verdict& verdict)
{
    constexpr std::array<const char*, 4> names = {"done", "retry", "dead", ""};
    return names.at(static_cast<std::size_t>(verdict.GetKind()));
}

} // namespace

AnswerPrompt::AnswerPrompt(int input, std::ostream& out, AnswerDefaults defaults)
    : m_input(input), m_terminal(isatty(input) == 1), m_interruption(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      m_out(out), m_defaults(std::move(defaults))
{
}

AnswerPrompt::~AnswerPrompt()
{
    close(m_interruption);
}

qel::Verdict AnswerPrompt::Ask()
{
    if (!m_terminal)
    {
        return Decide();
    }
    const KeyMode mode(m_input);
    m_out << "a=done r=retry d=dead q=quit? " << std::flush;
    qel::Verdict verdict = Decide();
    m_out << NameOf(verdict) << std::endl;
    return verdict;
}

qel::Verdict AnswerPrompt::Decide()
{
    while (const auto typed = Read())
    {
        if (*typed == "q" || *typed == "quit" || (m_terminal && (*typed)[0] == endOfTransmission))
        {
            m_over = true;
            break;
        }
        try
        {
            return ParseTypedAnswer(*typed, m_defaults);
        }
        catch (const UsageError& error)
        {
            m_out << error.what() << std::endl;
        }
    }
    return qel::Verdict::None();
}

std::optional<std::string> AnswerPrompt::Read()
{
    for (;;)
    {
        if (auto typed = TakeTyped())
        {
            return typed;
        }
        std::array<char, 4096> chunk{};
        if (m_over || !WaitForInput())
        {
            return std::nullopt;
        }
        const ssize_t got = read(m_input, chunk.data(), m_terminal ? 1 : chunk.size());
        if (got <= 0)
        {
            m_over = true;
            // The last line may lack its end.
            m_read += m_read.empty() ? "" : "\n";
            continue;
        }
        m_read.append(chunk.data(), static_cast<std::size_t>(got));
    }
}

std::optional<std::string> AnswerPrompt::TakeTyped()
{
    const std::size_t end = m_terminal ? m_read.size() : m_read.find('\n');
    if (m_read.empty() || end == std::string::npos)
    {
        return std::nullopt;
    }
    std::string typed = m_read.substr(0, end);
    m_read.erase(0, end + (m_terminal ? 0 : 1));
    return typed;
}

bool AnswerPrompt::WaitForInput() const
{
    std::array<pollfd, 2> watched{{{m_input, POLLIN, 0}, {m_interruption, POLLIN, 0}}};
    while (poll(watched.data(), watched.size(), -1) < 0 && errno == EINTR)
    {
    }
    return watched[1].revents == 0;
}

void AnswerPrompt::Interrupt()
{
    eventfd_write(m_interruption, 1);
}

void AnswerPrompt::Resume()
{
    eventfd_t count = 0;
    eventfd_read(m_interruption, &count);
}

} // namespace VtxQel

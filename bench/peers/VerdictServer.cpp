// The process that does the work for every peer: takes messages from one connection to its Unix socket, each as four
// bytes of length (big-endian) and the body, and answers each with one byte, its verdict 'd'. When it has answered all
// messages it prints as JSON how long that took from the first one, and how many bytes the bodies had.
//
//   qel_verdict_server SOCKET MESSAGES [ANSWERED]
//     ANSWERED  answers no more than so many: who acknowledges more has not waited for the verdict
//
// It ends when the connection does.

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <limits>
#include <stdexcept>
#include <string>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace
{

using Clock = std::chrono::steady_clock;

int AcceptOne(const std::string& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path))
    {
        throw std::runtime_error("the socket's path is too long");
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 || listen(listener, 1) != 0)
    {
        throw std::runtime_error("cannot listen on " + path);
    }
    const int connection = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    close(listener);
    return connection;
}

class Work
{
  public:
    Work(int connection, std::uint64_t messages, std::uint64_t answered)
        : m_connection(connection), m_messages(messages), m_mostAnswers(answered)
    {
    }

    /** Until the other side hangs up. */
    void Run()
    {
        std::string chunk(1 << 18, '\0');
        for (ssize_t got = 0; (got = read(m_connection, chunk.data(), chunk.size())) > 0;)
        {
            m_pending.append(chunk, 0, static_cast<std::size_t>(got));
            Answer(TakeMessages());
        }
    }

    std::uint64_t Taken() const { return m_taken; }

  private:
    std::uint64_t TakeMessages()
    {
        std::size_t begin = 0;
        const std::uint64_t before = m_taken;
        for (std::uint32_t length = 0; m_pending.size() - begin >= sizeof(length);)
        {
            std::memcpy(&length, m_pending.data() + begin, sizeof(length));
            length = ntohl(length);
            if (m_pending.size() - begin - sizeof(length) < length)
            {
                break;
            }
            m_first = m_taken++ == 0 ? Clock::now() : m_first;
            m_bytes += length;
            begin += sizeof(length) + length;
        }
        m_pending.erase(0, begin);
        return m_taken - before;
    }

    void Answer(std::uint64_t count)
    {
        const std::string verdicts(std::min(count, m_mostAnswers - m_answers), 'd');
        for (std::size_t sent = 0; sent < verdicts.size();)
        {
            const ssize_t done = write(m_connection, verdicts.data() + sent, verdicts.size() - sent);
            if (done < 0)
            {
                throw std::runtime_error("cannot answer");
            }
            sent += static_cast<std::size_t>(done);
        }
        m_answers += verdicts.size();
        if (!verdicts.empty() && m_answers == m_messages)
        {
            const double seconds = std::chrono::duration<double>(Clock::now() - m_first).count();
            std::cout << R"({"seconds":)" << seconds << R"(,"bytes":)" << m_bytes << "}" << std::endl;
        }
    }

    const int m_connection;
    const std::uint64_t m_messages;
    const std::uint64_t m_mostAnswers;
    std::string m_pending;
    std::uint64_t m_taken = 0;
    std::uint64_t m_answers = 0;
    std::uint64_t m_bytes = 0;
    Clock::time_point m_first;
};

} // namespace

int main(int argc, char** argv)
{
    if (argc < 3)
    {
        std::cerr << "usage: qel_verdict_server SOCKET MESSAGES [ANSWERED]" << std::endl;
        return 2;
    }
    try
    {
        const std::uint64_t most =
            argc > 3 ? std::strtoull(argv[3], nullptr, 10) : std::numeric_limits<std::uint64_t>::max();
        Work work(AcceptOne(argv[1]), std::strtoull(argv[2], nullptr, 10), most);
        work.Run();
        std::cout << R"({"taken":)" << work.Taken() << "}" << std::endl;
        return 0;
    }
    catch (const std::exception& e)
    {
        std::cerr << "qel_verdict_server: " << e.what() << std::endl;
        return 1;
    }
}

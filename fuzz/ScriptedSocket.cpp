// The operations of BrokerSocket for the fuzz targets: linked before the library, they take the place of its own.

#include "ScriptedSocket.h"

#include "Bytes.h"
#include "broker/AmqpFrames.h"
#include "broker/BrokerSocket.h"

#include <boost/asio/post.hpp>

#include <algorithm>
#include <array>

namespace VtxQel
{

namespace Fuzz
{
namespace
{

constexpr std::size_t PROTOCOL_HEADER = 8;

} // namespace

SocketScript*& SocketScript::Current()
{
    static SocketScript* current = nullptr;
    return current;
}

bool SocketScript::Accept()
{
    if (m_connections == MOST_CONNECTIONS)
    {
        return false;
    }
    ++m_connections;
    written.clear();
    m_heard = 0;
    m_answers.clear();
    m_answered = 0;
    m_published = 0;
    return true;
}

std::string_view SocketScript::Next(std::size_t most)
{
    if (seed != 0)
    {
        seed = seed * 1664525U + 1013904223U;
        most = std::min<std::size_t>(most, 1 + (seed >> 16U) % ((seed & 0x80000000U) != 0 ? 7 : 600));
    }
    const bool answering = HasAnswers();
    std::size_t& at = answering ? m_answered : m_said;
    const std::string_view next = std::string_view(answering ? m_answers : bytes).substr(at, most);
    at += next.size();
    return next;
}

void SocketScript::Hear(const std::string& sent)
{
    written += sent;
    if (obliges)
    {
        AnswerFrames();
    }
}

void SocketScript::AnswerFrames()
{
    if (m_heard == 0 && written.size() >= PROTOCOL_HEADER)
    {
        m_heard = PROTOCOL_HEADER;
        Answer(0, 0);
    }
    while (m_heard != 0 && written.size() - m_heard >= AmqpFrames::OVERHEAD)
    {
        const std::string_view frame = std::string_view(written).substr(m_heard);
        if (frame[0] == AMQP_FRAME_METHOD)
        {
            Answer(static_cast<std::uint16_t>(NumberIn(frame.substr(1, 2))), NumberIn(frame.substr(7, 4)));
        }
        m_heard += NumberIn(frame.substr(3, 4)) + AmqpFrames::OVERHEAD;
    }
}

/** The methods that RabbitMQ answers with have the number that follows, but for those of the login and of publishing.
 */
void SocketScript::Answer(std::uint16_t channel, std::uint32_t method)
{
    // Its scratch memory is worth more than the answer.
    static std::string encoded;
    static AmqpFrames frames(encoded);
    encoded.clear();
    std::array<std::uint64_t, 64> nothing{};
    switch (method)
    {
    case 0:
    {
        amqp_connection_start_t start{0, 9, {}, ToAmqp("PLAIN"), ToAmqp("en_US")};
        frames.Method(0, AMQP_CONNECTION_START_METHOD, &start);
        break;
    }
    case AMQP_CONNECTION_START_OK_METHOD:
    {
        amqp_connection_tune_t tune{2047, 131072, 60};
        frames.Method(0, AMQP_CONNECTION_TUNE_METHOD, &tune);
        break;
    }
    case AMQP_BASIC_PUBLISH_METHOD:
    {
        amqp_basic_ack_t ack{++m_published, 0};
        frames.Method(channel, AMQP_BASIC_ACK_METHOD, &ack);
        break;
    }
    case AMQP_CONNECTION_OPEN_METHOD:
    case AMQP_CONNECTION_CLOSE_METHOD:
    case AMQP_CHANNEL_OPEN_METHOD:
    case AMQP_CHANNEL_CLOSE_METHOD:
    case AMQP_EXCHANGE_DECLARE_METHOD:
    case AMQP_QUEUE_DECLARE_METHOD:
    case AMQP_QUEUE_BIND_METHOD:
    case AMQP_QUEUE_UNBIND_METHOD:
    case AMQP_BASIC_QOS_METHOD:
    case AMQP_BASIC_CONSUME_METHOD:
    case AMQP_BASIC_CANCEL_METHOD:
    case AMQP_CONFIRM_SELECT_METHOD:
        frames.Method(channel, method + 1, nothing.data());
        break;
    default:
        break;
    }
    m_answers += encoded;
}

namespace
{

/** How many turns of the I/O thread what is to be written may need until the broker hears it. */
constexpr int WRITE_TURNS = 4;

struct PendingRead
{
    std::shared_ptr<BrokerSocket> socket;
    const bool* closed;
    char* space;
    std::size_t size;
    BrokerSocket::OnTransfer done;
};

void Finish(const PendingRead& read)
{
    SocketScript& script = *SocketScript::Current();
    const std::string_view next = *read.closed ? std::string_view() : script.Next(read.size);
    std::copy(next.begin(), next.end(), read.space);
    if (!next.empty())
    {
        read.done({}, next.size());
    }
    else if (script.ends || *read.closed)
    {
        read.done(boost::asio::error::eof, 0);
    }
}

/** A broker that obliges hears what there is to hear before it says more. */
void ReadWhenReady(boost::asio::io_context& io, PendingRead read, int turns)
{
    boost::asio::post(
        io,
        [&io, read = std::move(read), turns]
        {
            const SocketScript& script = *SocketScript::Current();
            if (script.obliges && !script.HasAnswers() && turns > 0)
            {
                ReadWhenReady(io, read, turns - 1);
                return;
            }
            Finish(read);
        });
}

} // namespace
} // namespace Fuzz

BrokerSocket::BrokerSocket(boost::asio::io_context& io, BrokerUrl url, std::shared_ptr<const TlsMaterial> tls)
    : m_url(std::move(url)), m_material(std::move(tls)), m_io(io), m_socket(io), m_timer(io)
{
}

void BrokerSocket::Connect(std::chrono::milliseconds, OnConnect done)
{
    const bool accepted = Fuzz::SocketScript::Current()->Accept();
    boost::asio::post(m_io, [done = std::move(done), accepted] { done(accepted ? "" : "refused"); });
}

void BrokerSocket::Read(char* space, std::size_t size, OnTransfer done)
{
    Fuzz::ReadWhenReady(m_io, {shared_from_this(), &m_closed, space, size, std::move(done)}, Fuzz::WRITE_TURNS);
}

void BrokerSocket::Write(const std::string& bytes, OnTransfer done)
{
    boost::asio::post(
        m_io,
        [self = shared_from_this(), &bytes, done = std::move(done)]
        {
            if (self->m_closed)
            {
                done(boost::asio::error::operation_aborted, 0);
                return;
            }
            Fuzz::SocketScript::Current()->Hear(bytes);
            done({}, bytes.size());
        });
}

std::size_t BrokerSocket::Waiting()
{
    return 0;
}

void BrokerSocket::Close()
{
    m_closed = true;
}

std::string BrokerSocket::Explain(const boost::system::error_code& error) const
{
    return error.message();
}

} // namespace VtxQel

#include "broker/AmqpConnection.h"

#include "common/QelException.h"
#include "common/Turn.h"

#include <boost/asio/post.hpp>

#include <algorithm>
#include <thread>
#include <utility>

#include <string.h>

namespace VtxQel
{

namespace asio = boost::asio;
using boost::system::error_code;

namespace
{

constexpr std::chrono::seconds HANDSHAKE_TIMEOUT{10};
constexpr std::chrono::seconds CLOSE_TIMEOUT{1};
/** What a buffer may keep of a large message that has been written. */
constexpr std::size_t MOST_KEPT = 1048576;

RmqTable ClientProperties(const std::string& connectionName)
{
    RmqTable capabilities;
    for (const char* name :
         {"publisher_confirms", "consumer_cancel_notify", "connection.blocked", "basic.nack",
          "exchange_exchange_bindings", "authentication_failure_close"})
    {
        capabilities.emplace_back(name, RmqValue::Boolean(true));
    }
    return {
        {"product", RmqValue::String("qel")},
        {"version", RmqValue::String(QEL_VERSION)},
        {"platform", RmqValue::String("Linux")},
        {"connection_name", RmqValue::String(connectionName)},
        {"capabilities", {'F', std::move(capabilities)}}};
}

bool Lists(const std::string& words, const std::string& word)
{
    return (" " + words + " ").find(" " + word + " ") != std::string::npos;
}

} // namespace

AmqpConnection::AmqpConnection(asio::io_context& io, AmqpConnectionOptions options, AmqpConnectionHandler& handler)
    : m_io(io), m_options(std::move(options)), m_handler(&handler),
      m_socket(std::make_shared<BrokerSocket>(io, m_options.url, m_options.tls)), m_deadline(io), m_heartbeatTimer(io),
      m_frames(m_out)
{
}

void AmqpConnection::Open()
{
    const auto userTimeout = m_options.userTimeout ? 2 * m_options.heartbeat : std::chrono::seconds(0);
    m_socket->Connect(userTimeout, [self = shared_from_this()](const std::string& why) { self->OnConnected(why); });
}

void AmqpConnection::OnConnected(const std::string& why)
{
    if (m_state == State::closed)
    {
        return;
    }
    if (m_options.onBrokerCertificate && m_socket->PeerNotAfter() != 0)
    {
        m_options.onBrokerCertificate(m_socket->PeerNotAfter());
    }
    if (!why.empty())
    {
        Abort(why);
        return;
    }
    m_state = State::start;
    SetDeadline(HANDSHAKE_TIMEOUT, "the broker did not complete the login within 10 s");
    m_frames.ProtocolHeader();
    ScheduleWrite();
    Read();
}

void AmqpConnection::SetDeadline(std::chrono::milliseconds after, const std::string& why)
{
    m_deadline.expires_after(after);
    m_deadline.async_wait(
        [self = shared_from_this(), why](const error_code& error)
        {
            if (!error)
            {
                self->Abort(why);
            }
        });
}

void AmqpConnection::SendMethod(std::uint16_t channel, amqp_method_number_t id, void* method)
{
    if (m_state == State::closed || (m_state == State::closing && channel != 0))
    {
        return;
    }
    m_frames.Method(channel, id, method);
    ScheduleWrite();
}

void AmqpConnection::SendPublish(
    std::uint16_t channel, amqp_basic_publish_t& publish, amqp_basic_properties_t& properties, std::string_view body)
{
    const std::size_t before = m_out.size();
    if (body.size() > MOST_KEPT)
    {
        // With room for the frames around it; doublings would need twice as much for a moment.
        m_out.reserve(before + body.size() + body.size() / 256 + FrameBuffer::FRAME_MAX);
    }
    try
    {
        m_frames.Method(channel, AMQP_BASIC_PUBLISH_METHOD, &publish);
        m_frames.Content(channel, properties, body);
    }
    catch (const RmqMessageException&)
    {
        // A method without its content would garble the stream.
        m_out.resize(before);
        throw;
    }
    ScheduleWrite();
}

void AmqpConnection::ScheduleWrite()
{
    if (!m_writeScheduled)
    {
        m_writeScheduled = true;
        asio::post(m_io, [self = shared_from_this()] { self->Write(); });
    }
}

/** Holds m_writeScheduled from the first byte collected until everything is written. */
void AmqpConnection::Write()
{
    if (m_state == State::closed || m_writeFailed)
    {
        return;
    }
    m_sentSinceTick = true;
    m_writing.swap(m_out);
    m_socket->Write(
        m_writing,
        [self = shared_from_this()](const error_code& error, std::size_t)
        {
            if (self->m_state != State::open)
            {
                // The login was among these bytes.
                explicit_bzero(self->m_writing.data(), self->m_writing.size());
            }
            self->m_writing.clear();
            if (self->m_writing.capacity() > MOST_KEPT)
            {
                self->m_writing.shrink_to_fit();
            }
            if (error)
            {
                // The reader learns more: the broker may have said why before it closed.
                self->m_writeFailed = true;
                if (!self->m_reading)
                {
                    self->Abort(self->EndOfStream(error), EndCause::network);
                }
                return;
            }
            if (!self->m_out.empty())
            {
                self->Write();
                return;
            }
            self->m_writeScheduled = false;
            if (self->m_handler != nullptr && self->m_state == State::open)
            {
                self->m_handler->OnWritten();
            }
        });
}

void AmqpConnection::Read()
{
    if (m_reading || m_paused || m_state == State::closed)
    {
        return;
    }
    m_reading = true;
    char* space = m_in.Space();
    m_socket->Read(
        space, m_in.SpaceSize(),
        [self = shared_from_this()](const error_code& error, std::size_t count) { self->OnRead(error, count); });
}

void AmqpConnection::OnRead(const error_code& error, std::size_t count)
{
    if (m_state == State::closed)
    {
        return;
    }
    if (error)
    {
        Abort(EndOfStream(error), EndCause::network);
        return;
    }
    m_lastReceived = std::chrono::steady_clock::now();
    m_in.Filled(count);
    TakeFrames();
    // Only now: nothing may move the bytes that are being looked at.
    m_reading = false;
    ReadOn(count);
}

void AmqpConnection::TakeFrames()
{
    const Turn turn;
    try
    {
        // Behind the broker's farewell nothing counts, least of all instead of it.
        while (m_state != State::closed && !m_farewell)
        {
            const auto frame = m_in.Next();
            if (!frame)
            {
                break;
            }
            OnFrame(*frame);
        }
    }
    catch (const RmqException& e)
    {
        Abort(e.what(), EndCause::protocol);
    }
    if (m_state == State::open && m_handler != nullptr)
    {
        m_handler->OnReadEnd();
    }
}

void AmqpConnection::ReadOn(std::size_t count)
{
    const auto rest = m_pace.After(m_lastReceived, std::exchange(m_messages, 0), count);
    m_waiting -= std::min(m_waiting, count);
    // What has come during one rest is read before the next: by TLS that takes a read for each record.
    if (rest.count() > 0 && m_waiting == 0 && !m_paused)
    {
        // The whole thread: what others ask of it meanwhile is done in one go, too, and they need not wake it.
        std::this_thread::sleep_until(m_lastReceived + rest);
        m_waiting = m_socket->Waiting();
    }
    Read();
}

std::string AmqpConnection::EndOfStream(const error_code& error) const
{
    const std::string why = m_socket->Explain(error);
    switch (m_state)
    {
    case State::start:
        return "the broker ended the connection before the login: " + why +
               (m_options.url.tls ? "" : " (does it speak TLS on this port? Then its URL begins with amqps://)");
    case State::tune:
        return "the broker ended the connection during the login: " + why;
    case State::closing:
        return "closed";
    default:
        return "connection lost: " + why;
    }
}

void AmqpConnection::OnFrame(const RawFrame& frame)
{
    if (frame.type != AMQP_FRAME_HEARTBEAT)
    {
        m_lastFrame = m_lastReceived;
    }
    switch (frame.type)
    {
    case AMQP_FRAME_METHOD:
        OnMethodFrame(frame);
        break;
    case AMQP_FRAME_HEADER:
    case AMQP_FRAME_BODY:
        OnContentFrame(frame);
        break;
    case AMQP_FRAME_HEARTBEAT:
        break;
    default:
        throw RmqConnectionException("received a frame of unknown type " + std::to_string(frame.type));
    }
    m_pool.Recycle();
}

void AmqpConnection::OnMethodFrame(const RawFrame& frame)
{
    const amqp_method_t method = DecodeMethod(frame.payload, m_pool);
    if (frame.channel == 0)
    {
        OnConnectionMethod(method);
    }
    else if (m_state == State::closing)
    {
        return;
    }
    else if (m_state != State::open)
    {
        throw RmqConnectionException("received a channel's method before the login");
    }
    else if (method.id == AMQP_BASIC_DELIVER_METHOD || method.id == AMQP_BASIC_RETURN_METHOD)
    {
        const auto [content, added] = m_contents.emplace(frame.channel, StartContent(method));
        if (!added)
        {
            throw RmqConnectionException("received a message inside of another one");
        }
        content->second.lastFrame = m_lastReceived;
    }
    else if (m_handler != nullptr)
    {
        if (method.id == AMQP_CHANNEL_CLOSE_METHOD)
        {
            DropContent(frame.channel);
        }
        m_handler->OnMethod(frame.channel, method);
    }
}

void AmqpConnection::OnContentFrame(const RawFrame& frame)
{
    if (m_state == State::closing)
    {
        return;
    }
    const auto found = m_contents.find(frame.channel);
    if (found == m_contents.end())
    {
        throw RmqConnectionException("received content that no method announced");
    }
    found->second.lastFrame = m_lastReceived;
    if (frame.type == AMQP_FRAME_HEADER)
    {
        AddHeader(found->second, frame, m_pool, m_options.maxBody);
    }
    else
    {
        AddBodyOf(found->second, frame.payload);
    }
    if (IsComplete(found->second))
    {
        auto content = m_contents.extract(found);
        m_assembled -= content.mapped().body.size();
        ++m_messages;
        if (m_handler != nullptr)
        {
            m_handler->OnContent(frame.channel, std::move(content.mapped()));
        }
    }
}

void AmqpConnection::AddBodyOf(AmqpContent& content, std::string_view payload)
{
    const std::size_t before = content.body.size();
    AddBody(content, payload);
    m_assembled += content.body.size() - before;
    if (m_assembled > 2 * m_options.maxBody)
    {
        // A broker sends each message in one piece.
        throw RmqConnectionException("received too many messages inside of one another");
    }
}

void AmqpConnection::DropContent(std::uint16_t channel)
{
    const auto found = m_contents.find(channel);
    if (found != m_contents.end())
    {
        m_assembled -= found->second.body.size();
        m_contents.erase(found);
    }
}

void AmqpConnection::OnConnectionMethod(const amqp_method_t& method)
{
    if (method.id == AMQP_CONNECTION_CLOSE_METHOD)
    {
        OnConnectionClose(*static_cast<const amqp_connection_close_t*>(method.decoded));
    }
    else if (method.id == AMQP_CONNECTION_CLOSE_OK_METHOD)
    {
        Abort("closed");
    }
    else if (method.id == AMQP_CONNECTION_START_METHOD && m_state == State::start)
    {
        OnStart(*static_cast<const amqp_connection_start_t*>(method.decoded));
    }
    else if (method.id == AMQP_CONNECTION_TUNE_METHOD && m_state == State::tune)
    {
        OnTune(*static_cast<const amqp_connection_tune_t*>(method.decoded));
    }
    else if (method.id == AMQP_CONNECTION_OPEN_OK_METHOD && m_state == State::opening)
    {
        m_state = State::open;
        m_deadline.cancel();
        StartHeartbeat();
        if (m_handler != nullptr)
        {
            m_handler->OnOpen();
        }
    }
    else if (method.id == AMQP_CONNECTION_BLOCKED_METHOD || method.id == AMQP_CONNECTION_UNBLOCKED_METHOD)
    {
        const bool blocked = method.id == AMQP_CONNECTION_BLOCKED_METHOD;
        if (m_handler != nullptr)
        {
            m_handler->OnBlocked(
                blocked,
                blocked ? FromAmqp(static_cast<const amqp_connection_blocked_t*>(method.decoded)->reason) : "");
        }
    }
    else if (m_state != State::closing)
    {
        throw RmqConnectionException(std::string("received ") + amqp_method_name(method.id) + " out of place");
    }
}

void AmqpConnection::OnStart(const amqp_connection_start_t& start)
{
    const std::string mechanism = m_options.external ? "EXTERNAL" : "PLAIN";
    if (!Lists(FromAmqp(start.mechanisms), mechanism))
    {
        throw RmqConnectionException(
            "the broker does not offer the login mechanism " + mechanism +
            (m_options.external ? ", by certificate: enable its plugin rabbitmq_auth_mechanism_ssl and add EXTERNAL to "
                                  "auth_mechanisms"
                                : ""));
    }
    std::string response;
    if (!m_options.external)
    {
        response = '\0' + m_options.url.user + '\0' + m_options.url.password;
    }
    const RmqTable properties = ClientProperties(m_options.connectionName);
    amqp_connection_start_ok_t ok{};
    ok.client_properties = ToAmqp(properties, m_pool);
    ok.mechanism = ToAmqp(mechanism);
    ok.response = ToAmqp(response);
    ok.locale = ToAmqp("en_US");
    m_state = State::tune;
    SendMethod(0, AMQP_CONNECTION_START_OK_METHOD, &ok);
    explicit_bzero(response.data(), response.size());
    m_frames.Wipe();
}

void AmqpConnection::OnTune(const amqp_connection_tune_t& tune)
{
    const auto smaller = [](std::uint32_t ours, std::uint32_t theirs)
    { return theirs == 0 ? ours : std::min(ours, theirs); };
    m_channelMax = static_cast<std::uint16_t>(smaller(65535, tune.channel_max));
    const std::uint32_t frameMax = smaller(FrameBuffer::FRAME_MAX, tune.frame_max);
    if (frameMax < AMQP_FRAME_MIN_SIZE)
    {
        throw RmqConnectionException(
            "the broker allows frames of " + std::to_string(frameMax) + " bytes, which is less than AMQP asks for");
    }
    m_frames.SetFrameMax(frameMax);
    // Zero on our side means none, whatever the broker proposes.
    const auto ours = static_cast<std::uint32_t>(std::clamp<std::int64_t>(m_options.heartbeat.count(), 0, 65535));
    m_heartbeat = std::chrono::seconds(ours == 0 ? 0 : smaller(ours, tune.heartbeat));

    Send(
        0, AMQP_CONNECTION_TUNE_OK_METHOD,
        amqp_connection_tune_ok_t{m_channelMax, frameMax, static_cast<std::uint16_t>(m_heartbeat.count())});
    m_state = State::opening;
    Send(0, AMQP_CONNECTION_OPEN_METHOD, amqp_connection_open_t{ToAmqp(m_options.url.vhost), amqp_empty_bytes, 1});
}

void AmqpConnection::OnConnectionClose(const amqp_connection_close_t& close)
{
    const std::string text = FromAmqp(close.reply_text);
    const bool login = m_state == State::start || m_state == State::tune || m_state == State::opening;
    Send(0, AMQP_CONNECTION_CLOSE_OK_METHOD, amqp_connection_close_ok_t{});
    // Flushed at best effort: the socket goes with this connection.
    std::string why = "the broker closed the connection: ";
    if (login)
    {
        m_refused = close.reply_code == AMQP_ACCESS_REFUSED || close.reply_code == AMQP_NOT_ALLOWED;
        why = close.reply_code == AMQP_ACCESS_REFUSED ? "login refused: "
              : close.reply_code == AMQP_NOT_ALLOWED  ? "virtual host " + m_options.url.vhost + " refused: "
                                                      : "login failed: ";
    }
    why += std::to_string(close.reply_code) + " " + text;
    m_state = State::closing;
    m_farewell = true;
    // The write that answers is posted before this, so it goes out first.
    asio::post(m_io, [self = shared_from_this(), why] { self->Abort(why, EndCause::broker); });
}

void AmqpConnection::StartHeartbeat()
{
    if (m_heartbeat.count() > 0)
    {
        m_heartbeatTimer.expires_after(std::chrono::milliseconds(m_heartbeat) / 2);
        m_heartbeatTimer.async_wait(
            [self = shared_from_this()](const error_code& error)
            {
                if (!error)
                {
                    self->OnHeartbeatTimer();
                }
            });
    }
}

void AmqpConnection::OnHeartbeatTimer()
{
    if (m_state == State::closed)
    {
        return;
    }
    const auto now = std::chrono::steady_clock::now();
    if (m_paused)
    {
        // Nobody reads: silence says nothing about the broker.
        m_lastReceived = now;
    }
    if (now - m_lastReceived > 2 * m_heartbeat)
    {
        Abort("nothing heard from the broker for " + std::to_string(2 * m_heartbeat.count()) + " s", EndCause::silence);
        return;
    }
    const bool stuck = std::any_of(
        m_contents.begin(), m_contents.end(),
        [this, now](const auto& content) { return now - content.second.lastFrame > 2 * m_heartbeat; });
    if (stuck && !m_paused)
    {
        // Heartbeats alone would keep the connection, and with it the queue, waiting for ever.
        Abort("the broker has begun a message and does not go on with it");
        return;
    }
    if (!std::exchange(m_sentSinceTick, false))
    {
        m_frames.Heartbeat();
        ScheduleWrite();
    }
    StartHeartbeat();
}

void AmqpConnection::PauseReading(bool paused)
{
    m_paused = paused;
    m_lastReceived = std::chrono::steady_clock::now();
    for (auto& [channel, content] : m_contents)
    {
        content.lastFrame = m_lastReceived;
    }
    Read();
}

void AmqpConnection::Close(EndCause cause)
{
    m_cause = cause;
    if (m_state != State::open)
    {
        Abort("closed");
        return;
    }
    m_state = State::closing;
    m_paused = false;
    Send(0, AMQP_CONNECTION_CLOSE_METHOD, amqp_connection_close_t{AMQP_REPLY_SUCCESS, ToAmqp("goodbye"), 0, 0});
    SetDeadline(CLOSE_TIMEOUT, "closed");
    Read();
}

void AmqpConnection::Abort(const std::string& why, EndCause cause)
{
    m_cause = m_cause.value_or(cause);
    AmqpConnectionHandler* handler = m_handler;
    Drop();
    if (handler != nullptr)
    {
        handler->OnClosed(why);
    }
}

void AmqpConnection::Drop()
{
    m_handler = nullptr;
    if (std::exchange(m_state, State::closed) != State::closed)
    {
        m_socket->Close();
        m_deadline.cancel();
        m_heartbeatTimer.cancel();
        explicit_bzero(m_options.url.password.data(), m_options.url.password.size());
    }
}

} // namespace VtxQel

#pragma once

#include "broker/AmqpFrames.h"
#include "broker/BrokerSocket.h"
#include "broker/BrokerUrl.h"
#include "broker/EndCause.h"
#include "broker/FrameBuffer.h"
#include "broker/ReadPace.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>

namespace VtxQel
{

/** Receives what an AmqpConnection has to tell, on the I/O thread. Outlives it or detaches from it. */
class AmqpConnectionHandler
{
  public:
    virtual ~AmqpConnectionHandler() = default;

    /** Login and virtual host are accepted: channels can be opened. */
    virtual void OnOpen() = 0;
    /** A method of a channel; what it points to is valid during the call. May throw RmqConnectionException. */
    virtual void OnMethod(std::uint16_t channel, const amqp_method_t& method) = 0;
    virtual void OnContent(std::uint16_t channel, AmqpContent&& content) = 0;
    /** connection.blocked and connection.unblocked. */
    virtual void OnBlocked(bool blocked, const std::string& reason) = 0;
    /** All frames that were read together are handled. */
    virtual void OnReadEnd() = 0;
    /** Everything sent so far is with the kernel. */
    virtual void OnWritten() = 0;
    /** The end, told once and last: why it failed or ended. */
    virtual void OnClosed(const std::string& why) = 0;
};

/** What an AmqpConnection needs to know. */
struct AmqpConnectionOptions
{
    BrokerUrl url;
    /** What to make a TLS connection with, when the URL asks for one. */
    std::shared_ptr<const TlsMaterial> tls;
    /** Hears when the certificate expires that a TLS broker has shown. */
    std::function<void(std::int64_t notAfter)> onBrokerCertificate;
    /** Log in with the certificate (EXTERNAL) instead of user and password. */
    bool external = false;
    std::string connectionName;
    std::chrono::seconds heartbeat{10};
    /** Let the kernel give up on unacknowledged bytes. Not for publishing: an alarm makes the broker stop reading. */
    bool userTimeout = true;
    std::size_t maxBody = 0;
};

/**
 * AmqpConnection is one connection to a broker, from connecting to its end; it is not used again after that.
 *
 * It logs in, keeps heartbeats, puts contents together and hands methods to its handler; it knows nothing of what is
 * done on channels. Lives on the I/O thread. Everything sent is collected and written at the end of the turn. Whatever
 * ends it (refusal, silence, a byte that makes no sense) is told once by OnClosed with a reason fit for logs.
 */
class AmqpConnection : public std::enable_shared_from_this<AmqpConnection>
{
  public:
    AmqpConnection(boost::asio::io_context& io, AmqpConnectionOptions options, AmqpConnectionHandler& handler);

    void Open();
    /** Tells another handler from now on, or nobody. */
    void SetHandler(AmqpConnectionHandler* handler) { m_handler = handler; }
    bool IsOpen() const { return m_state == State::open; }
    /** The heartbeat agreed on; 0 is none. */
    std::chrono::seconds Heartbeat() const { return m_heartbeat; }
    std::uint16_t ChannelMax() const { return m_channelMax; }

    /** Sends a method; nothing happens unless open. @throws RmqMessageException when it cannot be encoded */
    template <typename T>
    void Send(std::uint16_t channel, amqp_method_number_t id, T method)
    {
        SendMethod(channel, id, &method);
    }
    void SendPublish(
        std::uint16_t channel, amqp_basic_publish_t& publish, amqp_basic_properties_t& properties,
        std::string_view body);
    /** Bytes that the kernel has not taken yet. */
    std::size_t Backlog() const { return m_out.size() + m_writing.size(); }

    void PauseReading(bool paused);
    /** Closes in order; the handler hears OnClosed when the broker has agreed or a second has passed. */
    void Close(EndCause cause = EndCause::moved);
    /** Ends at once. The handler hears OnClosed. */
    void Abort(const std::string& why, EndCause cause = EndCause::unanswered);
    /** Whether the broker ended it because it refuses our user or virtual host. */
    bool IsRefused() const { return m_refused; }
    /** When a frame came last that was no heartbeat. */
    std::chrono::steady_clock::time_point LastFrame() const { return m_lastFrame; }
    /** What ended it, or is about to. */
    EndCause Cause() const { return m_cause.value_or(EndCause::network); }
    /** Ends at once and tells nobody. */
    void Drop();

  private:
    enum class State
    {
        connecting,
        start,
        tune,
        opening,
        open,
        closing,
        closed
    };

    void OnConnected(const std::string& why);
    void SendMethod(std::uint16_t channel, amqp_method_number_t id, void* method);
    void ScheduleWrite();
    void Write();
    void Read();
    void OnRead(const boost::system::error_code& error, std::size_t count);
    void TakeFrames();
    void ReadOn(std::size_t count);
    void OnFrame(const RawFrame& frame);
    void OnMethodFrame(const RawFrame& frame);
    void OnContentFrame(const RawFrame& frame);
    void AddBodyOf(AmqpContent& content, std::string_view payload);
    void DropContent(std::uint16_t channel);
    void OnConnectionMethod(const amqp_method_t& method);
    void OnStart(const amqp_connection_start_t& start);
    void OnTune(const amqp_connection_tune_t& tune);
    void OnConnectionClose(const amqp_connection_close_t& close);
    void StartHeartbeat();
    void OnHeartbeatTimer();
    void SetDeadline(std::chrono::milliseconds after, const std::string& why);
    std::string EndOfStream(const boost::system::error_code& error) const;

    boost::asio::io_context& m_io;
    AmqpConnectionOptions m_options;
    AmqpConnectionHandler* m_handler;
    std::shared_ptr<BrokerSocket> m_socket;
    State m_state = State::connecting;
    std::optional<EndCause> m_cause;
    bool m_refused = false;
    boost::asio::steady_timer m_deadline;
    boost::asio::steady_timer m_heartbeatTimer;
    std::chrono::seconds m_heartbeat{0};
    std::uint16_t m_channelMax = 0;
    std::chrono::steady_clock::time_point m_lastReceived;
    std::chrono::steady_clock::time_point m_lastFrame;
    bool m_sentSinceTick = false;

    FrameBuffer m_in;
    ReadPace m_pace;
    /** Contents put together since the last read. */
    std::size_t m_messages = 0;
    /** What had come by the end of the last rest and is still to be read, roughly: by TLS less comes out than came in.
     */
    std::size_t m_waiting = 0;
    AmqpPool m_pool;
    std::unordered_map<std::uint16_t, AmqpContent> m_contents;
    /** The bytes of the bodies in m_contents. */
    std::size_t m_assembled = 0;
    bool m_paused = false;
    bool m_reading = false;

    std::string m_out;
    std::string m_writing;
    AmqpFrames m_frames;
    bool m_writeScheduled = false;
    bool m_writeFailed = false;
    /** The broker has closed the connection in order. */
    bool m_farewell = false;
};

} // namespace VtxQel

#pragma once

#include "Require.h"
#include "ScriptedSocket.h"
#include "broker/AmqpConnection.h"
#include "broker/HeaderCheck.h"
#include "common/QelException.h"

#include <boost/asio/io_context.hpp>

#include <string>
#include <vector>

namespace VtxQel::Fuzz
{

/** Writes down what a connection tells, and that it tells it in order. */
class Recorder : public AmqpConnectionHandler
{
  public:
    static constexpr std::size_t MAX_BODY = 5000;

    const std::string& Seen() const { return m_seen; }

    void OnOpen() override
    {
        Note("open", !m_open);
        m_open = true;
    }
    void OnMethod(std::uint16_t channel, const amqp_method_t& method) override
    {
        Note("method " + std::to_string(channel) + " " + std::to_string(method.id), m_open);
        // Encoding looks at every byte that was decoded.
        static std::vector<char> space(FrameBuffer::FRAME_MAX);
        const int size = amqp_encode_method(method.id, method.decoded, {space.size(), space.data()});
        m_seen.append(space.data(), static_cast<std::size_t>(std::max(size, 0)));
    }
    void OnContent(std::uint16_t channel, AmqpContent&& content) override
    {
        Note("content " + std::to_string(channel) + " " + std::to_string(content.deliveryTag), m_open);
        m_seen += content.exchange + " " + content.routingKey + " " + content.refused + " " + content.body;
        Require(content.body.size() <= MAX_BODY, "a body is bounded");
        Require(content.isOverLimit || content.body.size() == content.declaredSize, "a body within the limit is whole");
        Require(!content.isOverLimit || !content.refused.empty(), "a body that is not whole is refused");
    }
    void OnBlocked(bool blocked, const std::string& reason) override
    {
        Note((blocked ? "blocked " : "unblocked ") + reason, true);
    }
    void OnReadEnd() override { Require(m_open && !m_closed, "reads end while the connection is open"); }
    void OnWritten() override { Require(m_open && !m_closed, "bytes are written while the connection is open"); }
    void OnClosed(const std::string& why) override
    {
        Note("closed " + why, !why.empty());
        m_closed = true;
    }

  private:
    void Note(const std::string& what, bool inPlace)
    {
        Require(inPlace && !m_closed, "in its place comes: " + what);
        m_seen += "\n" + what;
    }

    bool m_open = false;
    bool m_closed = false;
    std::string m_seen;
};

/** What a connection tells of the script. */
inline std::string RunConnection(SocketScript& script)
{
    SocketScript::Current() = &script;
    boost::asio::io_context io(1);
    Recorder recorder;
    AmqpConnectionOptions options;
    options.url = {"host", 5672, "/", "user", "password", false};
    options.connectionName = "fuzz";
    options.maxBody = Recorder::MAX_BODY;
    const auto connection = std::make_shared<AmqpConnection>(io, options, recorder);
    connection->Open();
    io.poll();
    connection->Drop();
    return recorder.Seen();
}

} // namespace VtxQel::Fuzz

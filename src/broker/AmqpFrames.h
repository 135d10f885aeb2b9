#pragma once

#include "broker/AmqpTable.h"
#include "broker/FrameBuffer.h"
#include "common/RmqMessage.h"

#include <amqp.h>
#include <amqp_framing.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace VtxQel
{

/**
 * Appends encoded frames to a byte string. The strings that go in must fit their fields (255 bytes for a short string):
 * what the library cannot encode throws RmqMessageException and appends nothing. Used by one thread.
 */
class AmqpFrames
{
  public:
    explicit AmqpFrames(std::string& out) : m_out(out), m_scratch(SCRATCH) {}

    /** The largest frame the peer takes, header and end octet included. */
    void SetFrameMax(std::size_t frameMax) { m_frameMax = frameMax; }
    void ProtocolHeader();
    void Heartbeat();
    /** `method` is the library's structure for `id`. */
    void Method(std::uint16_t channel, amqp_method_number_t id, void* method);
    /** The frames that follow basic.publish. */
    void Content(std::uint16_t channel, amqp_basic_properties_t& properties, std::string_view body);
    /** Forgets and wipes what the last method left in the scratch memory. */
    void Wipe();

    /** Header and end octet of a frame. */
    static constexpr std::size_t OVERHEAD = 8;

  private:
    static constexpr std::size_t SCRATCH = 131072;

    void Frame(std::uint8_t type, std::uint16_t channel, std::string_view payload);
    void Number(std::uint64_t number, std::size_t octets);

    std::string& m_out;
    std::vector<char> m_scratch;
    std::size_t m_frameMax = SCRATCH;
};

/** A method with content (basic.deliver or basic.return), put together from its frames. */
struct AmqpContent
{
    amqp_method_number_t method = 0;
    std::uint64_t deliveryTag = 0;
    bool redelivered = false;
    std::string exchange;
    std::string routingKey;
    /** Why it must be refused: hostile headers, body over the limit; empty when it is complete. */
    std::string refused;
    /** The body is counted and not kept. */
    bool isOverLimit = false;
    boost::shared_ptr<RmqProperties> properties;
    std::string body;

    std::uint64_t declaredSize = 0;
    std::uint64_t receivedSize = 0;
    bool hasHeader = false;
    /** When its last frame came. */
    std::chrono::steady_clock::time_point lastFrame;
};

/**
 * Decodes a method frame's payload; what it points to is valid until the pool is recycled.
 * @throws RmqConnectionException when it makes no sense or is nothing that a broker has to say: the library would also
 * decode what only clients send, and recurse over the tables in it
 */
amqp_method_t DecodeMethod(std::string_view payload, AmqpPool& pool);

/** Starts a content from its decoded method; `method` must be basic.deliver or basic.return. */
AmqpContent StartContent(const amqp_method_t& method);
/** Adds the content header frame. @throws RmqConnectionException when it is no content header or cannot be true */
void AddHeader(AmqpContent& content, const RawFrame& frame, AmqpPool& pool, std::size_t maxBody);
/** Adds a body frame's payload; the memory grows with what has come, not with what was declared. */
void AddBody(AmqpContent& content, std::string_view payload);
bool IsComplete(const AmqpContent& content);

} // namespace VtxQel

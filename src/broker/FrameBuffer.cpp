#include "broker/FrameBuffer.h"

#include "common/QelException.h"

#include <algorithm>
#include <cstring>
#include <string>

namespace VtxQel
{

namespace
{

constexpr std::size_t FRAME_HEADER = 7;
constexpr std::size_t FRAME_END = 1;
constexpr std::uint8_t END_OCTET = 0xCE;
/** How a TLS server begins its answer to what is not TLS. */
constexpr char TLS_ALERT = 0x15;
constexpr char TLS_MAJOR = 0x03;
/** The type of a frame that holds a content header. */
constexpr std::uint8_t CONTENT_HEADER = 2;

std::uint32_t Number(const char* bytes, std::size_t octets)
{
    std::uint32_t number = 0;
    for (std::size_t i = 0; i < octets; ++i)
    {
        number = number << 8U | static_cast<std::uint8_t>(bytes[i]);
    }
    return number;
}

void CheckEnd(char octet)
{
    if (static_cast<std::uint8_t>(octet) != END_OCTET)
    {
        throw RmqConnectionException("received a frame without its end octet");
    }
}

} // namespace

FrameBuffer::FrameBuffer() : m_memory(2 * FRAME_MAX) {}

char* FrameBuffer::Space()
{
    if (m_begin > 0)
    {
        std::memmove(m_memory.data(), m_memory.data() + m_begin, m_end - m_begin);
        m_end -= m_begin;
        m_begin = 0;
    }
    return m_memory.data() + m_end;
}

std::optional<RawFrame> FrameBuffer::Next()
{
    if (m_longHeader)
    {
        return PassOver();
    }
    const char* frame = m_memory.data() + m_begin;
    if (Held() > 0 && *frame == 'A')
    {
        throw RmqConnectionException("the broker does not speak AMQP 0-9-1");
    }
    if (Held() > 1 && frame[0] == TLS_ALERT && frame[1] == TLS_MAJOR)
    {
        throw RmqConnectionException("the broker speaks TLS on this port: its URL has to begin with amqps://");
    }
    if (Held() < FRAME_HEADER)
    {
        return std::nullopt;
    }
    const auto type = static_cast<std::uint8_t>(*frame);
    const auto channel = static_cast<std::uint16_t>(Number(frame + 1, 2));
    const std::size_t size = Number(frame + 3, 4);
    if (size > FRAME_MAX - FRAME_HEADER - FRAME_END)
    {
        return BeginLong(type, channel, size);
    }
    if (Held() < FRAME_HEADER + size + FRAME_END)
    {
        return std::nullopt;
    }
    CheckEnd(frame[FRAME_HEADER + size]);
    m_begin += FRAME_HEADER + size + FRAME_END;
    return RawFrame{type, channel, std::string_view(frame + FRAME_HEADER, size)};
}

std::optional<RawFrame> FrameBuffer::BeginLong(std::uint8_t type, std::uint16_t channel, std::size_t size)
{
    if (type != CONTENT_HEADER || size > LARGEST_CONTENT_HEADER)
    {
        throw RmqConnectionException(
            "received a frame of " + std::to_string(size) + " bytes; at most " + std::to_string(FRAME_MAX) +
            " were agreed on");
    }
    if (Held() < FRAME_HEADER + BEGINNING)
    {
        return std::nullopt;
    }
    m_longHeader = LongHeader{channel, {}, size - BEGINNING};
    std::memcpy(m_longHeader->beginning.data(), m_memory.data() + m_begin + FRAME_HEADER, BEGINNING);
    m_begin += FRAME_HEADER + BEGINNING;
    return PassOver();
}

std::optional<RawFrame> FrameBuffer::PassOver()
{
    const std::size_t passed = std::min(Held(), m_longHeader->left);
    m_begin += passed;
    m_longHeader->left -= passed;
    if (Held() < FRAME_END)
    {
        return std::nullopt;
    }
    CheckEnd(m_memory[m_begin]);
    m_begin += FRAME_END;
    m_beginning = m_longHeader->beginning;
    const std::uint16_t channel = m_longHeader->channel;
    m_longHeader.reset();
    return RawFrame{CONTENT_HEADER, channel, {m_beginning.data(), m_beginning.size()}, true};
}

} // namespace VtxQel

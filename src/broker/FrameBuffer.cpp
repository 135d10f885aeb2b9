#include "broker/FrameBuffer.h"

#include "common/QelException.h"

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

std::uint32_t Number(const char* bytes, std::size_t octets)
{
    std::uint32_t number = 0;
    for (std::size_t i = 0; i < octets; ++i)
    {
        number = number << 8U | static_cast<std::uint8_t>(bytes[i]);
    }
    return number;
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
    const char* frame = m_memory.data() + m_begin;
    const std::size_t held = m_end - m_begin;
    if (held > 0 && *frame == 'A')
    {
        throw RmqConnectionException("the broker does not speak AMQP 0-9-1");
    }
    if (held > 1 && frame[0] == TLS_ALERT && frame[1] == TLS_MAJOR)
    {
        throw RmqConnectionException("the broker speaks TLS on this port: its URL has to begin with amqps://");
    }
    if (held < FRAME_HEADER)
    {
        return std::nullopt;
    }
    const std::size_t size = Number(frame + 3, 4);
    if (size > FRAME_MAX - FRAME_HEADER - FRAME_END)
    {
        throw RmqConnectionException(
            "received a frame of " + std::to_string(size) + " bytes; at most " + std::to_string(FRAME_MAX) +
            " were agreed on");
    }
    if (held < FRAME_HEADER + size + FRAME_END)
    {
        return std::nullopt;
    }
    if (static_cast<std::uint8_t>(frame[FRAME_HEADER + size]) != END_OCTET)
    {
        throw RmqConnectionException("received a frame without its end octet");
    }
    m_begin += FRAME_HEADER + size + FRAME_END;
    return RawFrame{
        static_cast<std::uint8_t>(*frame), static_cast<std::uint16_t>(Number(frame + 1, 2)),
        std::string_view(frame + FRAME_HEADER, size)};
}

} // namespace VtxQel

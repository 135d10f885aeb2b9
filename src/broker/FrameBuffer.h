#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace VtxQel
{

/** One AMQP frame as received: a view into the buffer, valid until the next call of FrameBuffer::Space(). */
struct RawFrame
{
    std::uint8_t type = 0;
    std::uint16_t channel = 0;
    std::string_view payload;
    /** A content header over the limit: the payload is only its beginning, FrameBuffer::BEGINNING octets. */
    bool isCut = false;
};

/**
 * FrameBuffer cuts the received bytes into frames without copying them. Its memory is fixed: frames larger than the
 * limit are a protocol error, thrown as RmqConnectionException by Next(). But for content headers: RabbitMQ sends them
 * in one frame however small the frames are that were agreed on, so a publisher's long headers, or those that the
 * broker adds, must not cost us the connection. Of such a frame the beginning is handed out and the rest passed over.
 * Used by one thread.
 */
class FrameBuffer
{
  public:
    /** What we ask the broker for, and the largest frame (header and end octet included) accepted. */
    static constexpr std::size_t FRAME_MAX = 131072;
    /** What is kept of a content header over the limit: class, weight and body size. */
    static constexpr std::size_t BEGINNING = 12;
    /** No broker is set to larger frames than this in earnest. */
    static constexpr std::size_t LARGEST_CONTENT_HEADER = 16777216;

    FrameBuffer();

    /** Where to put received bytes: at least one octet. Moves what is not yet a whole frame to the front. */
    char* Space();
    std::size_t SpaceSize() const { return m_memory.size() - m_end; }
    /** So many bytes were put into the space. */
    void Filled(std::size_t count) { m_end += count; }
    /** The next whole frame, if there is one. */
    std::optional<RawFrame> Next();

  private:
    /** A content header over the limit that is being passed over. */
    struct LongHeader
    {
        std::uint16_t channel = 0;
        std::array<char, BEGINNING> beginning{};
        /** Octets of the payload that are still to come. */
        std::size_t left = 0;
    };

    std::size_t Held() const { return m_end - m_begin; }
    std::optional<RawFrame> BeginLong(std::uint8_t type, std::uint16_t channel, std::size_t size);
    std::optional<RawFrame> PassOver();

    std::vector<char> m_memory;
    std::size_t m_begin = 0;
    std::size_t m_end = 0;
    std::optional<LongHeader> m_longHeader;
    /** Where the payload of the frame that was cut last stays readable. */
    std::array<char, BEGINNING> m_beginning{};
};

} // namespace VtxQel

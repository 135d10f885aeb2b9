#pragma once

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
};

/**
 * FrameBuffer cuts the received bytes into frames without copying them. Its memory is fixed: frames larger than the
 * limit are a protocol error, thrown as RmqConnectionException by Next(). Used by one thread.
 */
class FrameBuffer
{
  public:
    /** What we ask the broker for, and the largest frame (header and end octet included) accepted. */
    static constexpr std::size_t FRAME_MAX = 131072;

    FrameBuffer();

    /** Where to put received bytes: at least one octet. Moves what is not yet a whole frame to the front. */
    char* Space();
    std::size_t SpaceSize() const { return m_memory.size() - m_end; }
    /** So many bytes were put into the space. */
    void Filled(std::size_t count) { m_end += count; }
    /** The next whole frame, if there is one. */
    std::optional<RawFrame> Next();

  private:
    std::vector<char> m_memory;
    std::size_t m_begin = 0;
    std::size_t m_end = 0;
};

} // namespace VtxQel

// What a broker may send: frames, methods, contents, in pieces of any size. An input goes either to a connection alone,
// which has to see the same whatever the pieces are, or to one of the two links with everything that stands on it.

#include "Bytes.h"
#include "ConnectionScene.h"
#include "LinkScene.h"
#include "Require.h"
#include "ScriptedSocket.h"

namespace VtxQel::Fuzz
{
namespace
{

/** Bits of the input's first octet. */
constexpr std::uint8_t WHOLE_LINK = 1;
constexpr std::uint8_t PUBLISHING = 2;
constexpr std::uint8_t FRAMED = 4;
constexpr std::uint8_t OBLIGING = 8;
constexpr std::uint8_t ENDING = 16;

void AddNumber(std::string& bytes, std::size_t number, unsigned octets)
{
    for (unsigned octet = octets; octet-- > 0;)
    {
        bytes.push_back(static_cast<char>(number >> (8U * octet) & 0xFFU));
    }
}

/** With this bit in a frame's type its payload is followed by more zeros than fit into a frame. */
constexpr std::uint8_t LONG_FRAME = 64;

/** Makes whole frames of an input that only says type, channel, size and payload of each. */
std::string Frames(Bytes& input)
{
    std::string frames;
    while (!input.AtEnd())
    {
        const std::uint8_t type = input.Octet();
        const std::uint8_t channel = input.Octet();
        const auto size = static_cast<std::size_t>(input.Octet()) << 8U | input.Octet();
        std::string payload(input.Take(size));
        payload.append((type & LONG_FRAME) != 0 ? FrameBuffer::FRAME_MAX : 0, '\0');
        AddNumber(frames, type & ~LONG_FRAME, 1);
        AddNumber(frames, channel, 2);
        AddNumber(frames, payload.size(), 4);
        frames += payload;
        AddNumber(frames, AMQP_FRAME_END, 1);
    }
    return frames;
}

/** What was sent is the protocol's header and whole frames. */
void CheckWritten(const std::string& written)
{
    const std::string header("AMQP\0\0\x09\x01", 8);
    Require(written.substr(0, 8) == header.substr(0, written.size()), "the protocol's header comes first");
    std::string_view rest = std::string_view(written).substr(std::min<std::size_t>(8, written.size()));
    while (!rest.empty())
    {
        Require(rest.size() >= AmqpFrames::OVERHEAD, "whole frames are sent");
        const std::size_t size = NumberIn(rest.substr(3, 4));
        Require(size <= rest.size() - AmqpFrames::OVERHEAD, "whole frames are sent");
        rest.remove_prefix(size + AmqpFrames::OVERHEAD - 1);
        Require(rest.front() == '\xCE', "a frame ends where it says");
        rest.remove_prefix(1);
    }
}

} // namespace
} // namespace VtxQel::Fuzz

// NOLINTNEXTLINE(readability-identifier-naming): the fuzzer's name
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace VtxQel::Fuzz;
    Bytes input(data, size);
    const std::uint8_t mode = input.Octet();
    SocketScript script;
    script.seed = input.Octet();
    script.obliges = (mode & OBLIGING) != 0;
    script.ends = (mode & ENDING) != 0;
    const bool publishing = (mode & PUBLISHING) != 0;
    script.bytes = (mode & FRAMED) != 0 ? Frames(input) : input.Rest();
    SocketScript whole = script;
    whole.seed = 0;

    if ((mode & WHOLE_LINK) != 0)
    {
        RunLink(script, publishing);
    }
    else
    {
        const std::string seen = RunConnection(script);
        const std::string atOnce = RunConnection(whole);
        if (seen != atOnce)
        {
            Require(false, "the pieces make no difference:\n" + seen + "\nand at once:\n" + atOnce);
        }
        // The end may come before the last bytes are written.
        const std::size_t both = std::min(script.written.size(), whole.written.size());
        Require(
            script.written.compare(0, both, whole.written, 0, both) == 0,
            "the pieces make no difference to what is sent");
    }
    CheckWritten(script.written);
    return 0;
}

#include "broker/FrameBuffer.h"

#include "common/QelException.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace VtxQel
{

namespace
{

void Put(FrameBuffer& buffer, const std::string& bytes)
{
    char* space = buffer.Space();
    ASSERT_LE(bytes.size(), buffer.SpaceSize());
    std::copy(bytes.begin(), bytes.end(), space);
    buffer.Filled(bytes.size());
}

std::string Frame(char type, char channel, const std::string& payload)
{
    std::string frame{type, '\0', channel, '\0'};
    frame.push_back(static_cast<char>(payload.size() >> 16U));
    frame.push_back(static_cast<char>(payload.size() >> 8U));
    frame.push_back(static_cast<char>(payload.size()));
    return frame + payload + '\xCE';
}

} // namespace

TEST(FrameBuffer, CutsFramesOutOfPiecesOfAnySize)
{
    const std::string stream = Frame(1, 2, "hello") + Frame(8, 0, "") + Frame(3, 7, std::string(70000, 'x'));
    for (const std::size_t piece : {std::size_t{1}, std::size_t{7}, std::size_t{4096}, stream.size()})
    {
        FrameBuffer buffer;
        std::vector<std::string> seen;
        for (std::size_t at = 0; at < stream.size(); at += piece)
        {
            Put(buffer, stream.substr(at, piece));
            while (const auto frame = buffer.Next())
            {
                seen.push_back(
                    std::to_string(frame->type) + ":" + std::to_string(frame->channel) + ":" +
                    std::to_string(frame->payload.size()));
            }
        }
        EXPECT_THAT(seen, testing::ElementsAre("1:2:5", "8:0:0", "3:7:70000")) << piece;
    }
}

TEST(FrameBuffer, AFrameOfTheLargestSizeFits)
{
    FrameBuffer buffer;
    Put(buffer, Frame(3, 1, std::string(FrameBuffer::FRAME_MAX - 8, 'x')));
    EXPECT_TRUE(buffer.Next());
    EXPECT_FALSE(buffer.Next());
}

TEST(FrameBuffer, AFrameOverTheLimitIsRefusedByItsHeaderAlone)
{
    FrameBuffer buffer;
    Put(buffer, Frame(3, 1, std::string(FrameBuffer::FRAME_MAX - 7, 'x')).substr(0, 7));
    EXPECT_THROW(buffer.Next(), RmqConnectionException);
}

TEST(FrameBuffer, AContentHeaderOverTheLimitIsPassedOverButForItsBeginning)
{
    const std::string beginning = std::string(4, '\0') + "bodysize";
    const std::string stream = Frame(2, 5, beginning + std::string(300000, 'h')) + Frame(3, 5, "body");
    for (const std::size_t piece : {std::size_t{1}, std::size_t{7}, std::size_t{18}, std::size_t{100000}})
    {
        FrameBuffer buffer;
        std::vector<std::string> seen;
        for (std::size_t at = 0; at < stream.size(); at += piece)
        {
            Put(buffer, stream.substr(at, piece));
            while (const auto frame = buffer.Next())
            {
                seen.push_back(std::to_string(frame->channel) + ":" + std::string(frame->payload));
                EXPECT_EQ(frame->isCut, frame->type == 2);
            }
        }
        EXPECT_THAT(seen, testing::ElementsAre("5:" + beginning, "5:body")) << piece;
    }
}

TEST(FrameBuffer, AContentHeaderThatIsPassedOverNeedsItsEndOctet)
{
    FrameBuffer buffer;
    std::string frame = Frame(2, 1, std::string(200000, 'h'));
    frame.back() = 'x';
    Put(buffer, frame);
    EXPECT_THROW(buffer.Next(), RmqConnectionException);
}

TEST(FrameBuffer, AContentHeaderBeyondReasonIsRefused)
{
    FrameBuffer buffer;
    Put(buffer, std::string("\x02\x00\x01\x01\x00\x00\x01", 7));
    EXPECT_THROW(buffer.Next(), RmqConnectionException);
}

TEST(FrameBuffer, AMissingEndOctetIsRefused)
{
    FrameBuffer buffer;
    std::string frame = Frame(1, 1, "x");
    frame.back() = 'x';
    Put(buffer, frame);
    EXPECT_THROW(buffer.Next(), RmqConnectionException);
}

TEST(FrameBuffer, AnotherProtocolIsToldSo)
{
    FrameBuffer buffer;
    Put(buffer, std::string("AMQP\x00\x01\x00\x00", 8));
    EXPECT_THROW(buffer.Next(), RmqConnectionException);
}

} // namespace VtxQel

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace VtxQel::Fuzz
{

/**
 * The broker's side of the connections that ScriptedSocket.cpp makes in the place of TCP: what it says, how the bytes
 * are cut into reads, and what it was told. Each connection goes on where the one before it ended; after a few they are
 * refused.
 */
struct SocketScript
{
    /** What the broker says. */
    std::string bytes;
    /** Whether it answers the client's methods as a broker that agrees to everything, before it goes on. */
    bool obliges = false;
    /** Whether it ends the connection when it has said everything, instead of falling silent. */
    bool ends = false;
    /** Reads get pieces of a size that follows from this; all at once when it is 0. */
    std::uint32_t seed = 0;

    /** What the client has sent by the latest connection. */
    std::string written;

    /** A connection is made. @return whether the broker takes it */
    bool Accept();
    /** The next bytes for the client, at most `most`; empty when there are none. */
    std::string_view Next(std::size_t most);
    bool HasAnswers() const { return m_answered < m_answers.size(); }
    /** Takes what the client sends. */
    void Hear(const std::string& sent);

    /** The script of the connections made from now on. */
    static SocketScript*& Current();

  private:
    void AnswerFrames();
    void Answer(std::uint16_t channel, std::uint32_t method);

    static constexpr int MOST_CONNECTIONS = 3;

    int m_connections = 0;
    std::size_t m_said = 0;
    std::size_t m_heard = 0;
    std::string m_answers;
    std::size_t m_answered = 0;
    std::uint64_t m_published = 0;
};

} // namespace VtxQel::Fuzz

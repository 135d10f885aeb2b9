#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace VtxQel
{

/** The message that a line is about, beside the line's text; empty when it is about none. */
struct LogFields
{
    /** As its publisher named it; empty when it did not. */
    std::string messageId;
    /** The application that it is for; empty when nobody is known. */
    std::string application;
    /** The broker's number of this delivery, within its channel; they begin at 1. */
    std::uint64_t deliveryTag = 0;

    bool operator==(const LogFields&) const = default;
};

/**
 * LogScope says, while it lives, which message the lines of its thread are about, so that whoever logs below need not
 * know the message. Scopes nest; the innermost counts. Belongs to the thread that made it.
 *
 * The message is described only when a line asks, so a message that nothing is logged about costs nothing.
 */
class LogScope
{
  public:
    using Describe = std::function<LogFields()>;

    /** @param describe takes no lock under which anybody logs. */
    explicit LogScope(Describe describe);
    ~LogScope();
    LogScope(const LogScope&) = delete;
    LogScope& operator=(const LogScope&) = delete;

    /** What the innermost scope of this thread says; nothing outside of all. */
    static LogFields Fields();

  private:
    const Describe m_describe;
    const LogScope* const m_outer;
};

} // namespace VtxQel

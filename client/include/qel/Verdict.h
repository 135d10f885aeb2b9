#pragma once

#include <chrono>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

namespace qel
{

/** What an application says to a message. */
class Verdict
{
  public:
    enum class Kind
    {
        done,
        retry,
        dead,
        none
    };

    /** Taken: the broker forgets the message. */
    static Verdict Done() { return {Kind::done, "", std::nullopt}; }
    /** Not now: it comes again, by default after Options::retryDelay, which doubles with every try up to a minute. */
    static Verdict Retry(std::optional<std::chrono::milliseconds> delay = std::nullopt)
    {
        return {Kind::retry, "", delay};
    }
    /** Never: it goes to the dead-letter queue with the reason (of which the first 1024 bytes count). */
    static Verdict Dead(std::string reason) { return {Kind::dead, std::move(reason), std::nullopt}; }

    /** No word: it stays in hand and comes again when we are detached. For handlers that are stopped midway. */
    static Verdict None() { return {Kind::none, "", std::nullopt}; }

    Kind GetKind() const { return m_kind; }
    const std::string& Reason() const { return m_reason; }
    /** When to try again, if something else than the default. */
    std::optional<std::chrono::milliseconds> Delay() const { return m_delay; }

  private:
    Verdict(Kind kind, std::string reason, std::optional<std::chrono::milliseconds> delay)
        : m_kind(kind), m_reason(std::move(reason)), m_delay(delay)
    {
    }

    Kind m_kind;
    std::string m_reason;
    std::optional<std::chrono::milliseconds> m_delay;
};

/** Thrown by a handler: the message can never be worked on. Any other exception means: try again later. */
class Dead : public std::runtime_error
{
  public:
    using std::runtime_error::runtime_error;
};

} // namespace qel

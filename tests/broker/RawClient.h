#pragma once

#include <amqp.h>

#include <string>

namespace VtxQel
{

/**
 * A client made of the library's blocking calls, for what our own code refuses to do. A failed call is a test failure.
 */
class RawClient
{
  public:
    explicit RawClient(const std::string& url);
    ~RawClient();
    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;

    /** Consumes the queue as its only permitted consumer. */
    void ConsumeExclusively(const std::string& queue);
    /** Declares a queue that only this connection may use. */
    void DeclareExclusive(const std::string& queue);
    void Bind(const std::string& queue, const std::string& exchange, const std::string& topic);
    /** Publishes to the queue a message with tables nested this deep in its headers. */
    void PublishNested(const std::string& queue, int depth);

  private:
    amqp_connection_state_t m_state;
};

} // namespace VtxQel

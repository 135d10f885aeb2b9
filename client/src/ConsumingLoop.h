#pragma once

#include "Attachment.h"
#include "qel/Client.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace qel
{

/**
 * ConsumingLoop attaches, has the handler work on what comes, and attaches again, until it is stopped.
 *
 * Run() works in its caller's thread and Options::threads - 1 others, which end with each attachment. Stop() may be
 * called from any thread.
 */
class ConsumingLoop
{
  public:
    using Handler = std::function<Verdict(const Message&)>;

    /** @param options must outlive the loop. */
    explicit ConsumingLoop(const Options& options) : m_options(options) {}

    /** @throws AttachError, std::logic_error; see Client::Run(). */
    void Run(apps::v1::Applications::Stub& stub, const Handler& handler);
    void Stop();

  private:
    /** One attachment from start to end. @return how it ended. @throws AttachError */
    std::string AttachOnce(apps::v1::Applications::Stub& stub, const Handler& handler);
    void Observe(const apps::v1::AttachResponse& response) const;
    void ObserveEnd(bool welcomed, const grpc::Status& status) const;
    void Work(Attachment& attachment, const Handler& handler) const;
    apps::v1::Verdict Decide(apps::v1::Delivery& delivery, const Handler& handler) const;
    Verdict Failed(const Message& message, const std::string& what) const;
    void Translate(const Message& message, const Verdict& verdict, apps::v1::Verdict& out) const;
    bool IsStopped();
    void Pause(std::chrono::milliseconds duration);

    const Options& m_options;

    /** Set while Run() is under way. */
    std::atomic<bool> m_running{false};
    std::mutex m_mutex;
    std::condition_variable m_changed;
    // Guarded by m_mutex.
    bool m_stopped = false;
    Attachment* m_current = nullptr;
};

} // namespace qel

#pragma once

#include "qel/apps/v1/applications.grpc.pb.h"

#include <grpcpp/grpcpp.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

namespace qel
{

/**
 * Attachment is one stream to the agent, from its Hello to its end.
 *
 * The public operations may be called from any thread; gRPC's threads call the others. Once started, the object must
 * not be destroyed before Finish() has returned. What the stream's end has cut off is not told to anybody: the agent
 * delivers it again.
 */
class Attachment : private grpc::ClientBidiReactor<apps::v1::AttachRequest, apps::v1::AttachResponse>
{
  public:
    using Observer = std::function<void(const apps::v1::AttachResponse&)>;

    using EndObserver = std::function<void(bool welcomed, const grpc::Status& status)>;

    /** Both are called on gRPC's threads: with each response before it is taken, and with the end before Finish() has
     * it. */
    Attachment(Observer observer, EndObserver endObserver)
        : m_observer(std::move(observer)), m_endObserver(std::move(endObserver))
    {
    }

    void Start(apps::v1::Applications::Stub& stub, const apps::v1::Hello& hello);

    /** Waits for a delivery that nobody has taken; none when the stream has ended or has to end. */
    std::optional<apps::v1::Delivery> Next();
    /** Sends a verdict, together with those that wait. */
    void Answer(apps::v1::Verdict verdict);

    /** Asks for nothing more; Next() returns what there is until the agent ends the stream, or our patience. */
    void Detach(std::chrono::milliseconds patience);
    /** Sends what verdicts there are, ends the stream and waits for that. @return how it ended. */
    grpc::Status Finish(std::chrono::milliseconds patience);

    /** Whether the agent has taken us; after Finish(). */
    bool WasWelcomed() const { return m_welcomed; }

  private:
    void OnReadDone(bool ok) override;
    void OnWriteDone(bool ok) override;
    void OnDone(const grpc::Status& status) override;

    void Take(apps::v1::AttachResponse& response);
    bool HasToEnd() const;
    void WriteMore();

    const Observer m_observer;
    const EndObserver m_endObserver;
    grpc::ClientContext m_context;
    apps::v1::AttachResponse m_incoming;

    std::mutex m_mutex;
    std::condition_variable m_changed;
    // Guarded by m_mutex; what is outgoing belongs to the write while there is one.
    apps::v1::AttachRequest m_outgoing;
    apps::v1::AttachRequest m_waiting;
    std::deque<apps::v1::Delivery> m_deliveries;
    bool m_writing = true;
    bool m_readEnded = false;
    std::optional<std::chrono::steady_clock::time_point> m_detachUntil;
    bool m_detachDue = false;
    bool m_finishing = false;
    bool m_writesDone = false;
    bool m_welcomed = false;
    bool m_done = false;
    grpc::Status m_status;
};

} // namespace qel

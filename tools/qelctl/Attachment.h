#pragma once

#include "DeliveryPrinter.h"
#include "qel/apps/v1/applications.grpc.pb.h"

#include <grpcpp/grpcpp.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

namespace VtxQel
{

/** How an application attaches and what it answers. */
struct AttachSettings
{
    std::string instance;
    std::uint32_t window = 0;
    qel::apps::v1::Verdict::Kind verdict = qel::apps::v1::Verdict::DONE;
    std::string reason;
    std::uint32_t retryDelayMs = 0;
};

/**
 * Attachment is one stream of an application to its agent: it prints what comes and answers each delivery with the
 * verdict of its settings.
 *
 * The public operations may be called from any thread; gRPC's threads call the others. Once started, the object must
 * not be destroyed before Wait() has returned true.
 */
class Attachment : private grpc::ClientBidiReactor<qel::apps::v1::AttachRequest, qel::apps::v1::AttachResponse>
{
  public:
    /** @param mostDeliveries ends the stream in order after so many; 0 never. */
    Attachment(const AttachSettings& settings, DeliveryPrinter& printer, std::uint64_t mostDeliveries);

    /** @param socket the application's socket file. */
    void Start(const std::string& socket);

    /** Ends the stream in order: verdicts that are given are sent, nothing further is printed. */
    void Detach();
    /** Ends the stream at once. */
    void Cancel() { m_context.TryCancel(); }

    /** Waits until the stream has ended or this side has begun to end it. */
    void WaitUntilEnding();
    /** Waits for the stream's end; false when it has not come in time. */
    bool Wait(std::chrono::milliseconds patience);

    // After Wait() has returned true.
    grpc::Status Status() const { return m_status; }
    bool WasEndedByUs() const { return m_detaching; }
    bool WasWelcomed() const { return m_welcomed; }
    std::uint64_t Deliveries() const { return m_deliveries; }

  private:
    void OnReadDone(bool ok) override;
    void OnWriteDone(bool ok) override;
    void OnDone(const grpc::Status& status) override;

    void Take(const qel::apps::v1::AttachResponse& response);
    void TakeDelivery(const qel::apps::v1::Delivery& delivery);
    void WriteMore();

    const AttachSettings m_settings;
    DeliveryPrinter& m_printer;
    const std::uint64_t m_mostDeliveries;
    std::unique_ptr<qel::apps::v1::Applications::Stub> m_stub;
    grpc::ClientContext m_context;
    qel::apps::v1::AttachResponse m_incoming;

    std::mutex m_mutex;
    std::condition_variable m_changed;
    // Guarded by m_mutex.
    qel::apps::v1::AttachRequest m_outgoing;
    qel::apps::v1::AttachRequest m_waiting;
    bool m_writing = true;
    bool m_readEnded = false;
    bool m_detaching = false;
    bool m_writesDone = false;
    bool m_welcomed = false;
    bool m_done = false;
    std::uint64_t m_deliveries = 0;
    grpc::Status m_status;
};

} // namespace VtxQel

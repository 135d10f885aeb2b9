#pragma once

#include "apps/Application.h"
#include "apps/ApplicationSession.h"
#include "apps/BrokerState.h"
#include "apps/Complaints.h"
#include "apps/ConfigurationCall.h"
#include "apps/Subscriptions.h"
#include "apps/Timers.h"
#include "common/Publisher.h"
#include "qel/apps/v1/applications.pb.h"

#include <boost/shared_ptr.hpp>
#include <boost/smart_ptr/enable_shared_from_this.hpp>
#include <google/protobuf/arena.h>
#include <grpcpp/support/byte_buffer.h>
#include <grpcpp/support/server_callback.h>

#include <atomic>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace VtxQel
{

/** What the streams and calls of one application need. The referred objects outlive them. */
struct ServiceContext
{
    boost::shared_ptr<Application> application;
    Subscriptions& subscriptions;
    Publisher& publisher;
    Timers& timers;
    std::string agentVersion;
    const std::atomic<BrokerState>& broker;
    ConfigurationAsker askForConfiguration;
};

/**
 * AttachSession is one instance's Attach stream.
 *
 * It keeps itself alive until gRPC is done with it. gRPC calls the On... operations on its threads; the application
 * calls the others on any. At most one write is under way; what comes meanwhile waits and goes out together. A rule
 * that the instance breaks ends the stream with a status that says what to do; the application gives what was in flight
 * to another instance.
 */
class AttachSession : public grpc::ServerBidiReactor<grpc::ByteBuffer, grpc::ByteBuffer>,
                      public ApplicationSession,
                      public boost::enable_shared_from_this<AttachSession>
{
  public:
    AttachSession(ServiceContext context, boost::shared_ptr<Complaints> complaints);

    /** Waits for the instance's Hello. Call once, when a shared pointer owns the session. */
    void Start();
    /** Ends the stream at once. Instead of Start(). */
    void Refuse(const grpc::Status& status);
    /** Sends the configuration's state as it is now. */
    void ConfigurationChanged();
    /** Sends the state of the connection to the broker as it is now. */
    void BrokerChanged();

    void Enqueue(SessionDelivery delivery) override;
    std::vector<std::uint64_t> Recall() override;
    void Flush() override;
    void End(SessionEnd why, const std::string& text) override;
    const std::string& Instance() const override { return m_instance; }

    void OnReadDone(bool ok) override;
    void OnWriteDone(bool ok) override;
    void OnCancel() override;
    void OnDone() override;

  private:
    /** Each returns what the instance did wrong, empty when nothing. */
    std::string TakeRequest();
    std::string Take(const qel::apps::v1::AttachRequest& request);
    std::string TakeHello(const qel::apps::v1::Hello& hello);
    std::string TakeVerdicts(const qel::apps::v1::VerdictBatch& batch);
    std::string TakeWindow(const qel::apps::v1::WindowUpdate& update);

    void CheckHello();
    void Note(bool& due);
    bool TakeNext();
    void SerializeBatch();
    void FillDeliveries(bool withBodies);
    void EndWith(const grpc::Status& status);
    void Detach();
    void LogEnd();
    std::string InstanceText() const { return m_instance.empty() ? "without a name" : m_instance; }

    const ServiceContext m_context;
    const boost::shared_ptr<Complaints> m_complaints;
    /** Used by the reading side only. */
    grpc::ByteBuffer m_received;
    /** What a request is made of: one block for a batch of verdicts. */
    google::protobuf::Arena m_memory;
    std::vector<ApplicationVerdict> m_verdicts;
    /** Set before the session attaches, constant from then on. */
    std::string m_instance;

    std::mutex m_mutex;
    /** Guarded by m_mutex, like everything below; these five belong to the write while there is one. */
    qel::apps::v1::AttachResponse m_response;
    std::vector<SessionDelivery> m_batch;
    /** Deliveries of larger batches. Used again without a Clear(), which would free much of what they need again. */
    std::vector<std::unique_ptr<qel::apps::v1::Delivery>> m_spare;
    grpc::ByteBuffer m_toSend;
    /** What the batch has, or the response made of it: bodies and headers, but for a body that is sent apart. */
    std::size_t m_batchBytes = 0;
    std::deque<SessionDelivery> m_outbox;
    bool m_helloTaken = false;
    bool m_welcomeDue = false;
    bool m_configurationDue = false;
    bool m_brokerDue = false;
    bool m_writing = false;
    bool m_finished = false;
    std::optional<grpc::Status> m_ending;
    std::optional<Application::SessionId> m_id;
    boost::shared_ptr<AttachSession> m_self;
};

} // namespace VtxQel

#include "apps/AttachSession.h"

#include "apps/MessageConversion.h"
#include "apps/RawMessage.h"
#include "common/SFormat.h"
#include "logging/Log.h"

namespace VtxQel
{

namespace proto = qel::apps::v1;

namespace
{

constexpr std::chrono::seconds helloDeadline{10};
constexpr std::size_t longestInstance = 64;
constexpr std::size_t longestReason = 1024;
/** Well below the 30 min after which RabbitMQ closes the channel of a consumer that does not answer. */
constexpr std::uint32_t longestRetryDelay = 900000;
constexpr std::size_t mostInBatch = 64;
constexpr std::size_t mostBytesInBatch = 1048576;
constexpr std::size_t mostBytesKept = 65536;
/** From here on it is dearer to copy a body than to send it from where it is, as a piece of its own. */
constexpr std::size_t largeBody = 65536;

bool IsLarge(const RmqMessage& message)
{
    return message.GetBodyLength() >= largeBody;
}

grpc::StatusCode CodeOf(SessionEnd why)
{
    switch (why)
    {
    case SessionEnd::invalid:
        return grpc::StatusCode::INVALID_ARGUMENT;
    case SessionEnd::overdue:
        return grpc::StatusCode::DEADLINE_EXCEEDED;
    case SessionEnd::finished:
        return grpc::StatusCode::OK;
    case SessionEnd::unavailable:
        break;
    }
    return grpc::StatusCode::UNAVAILABLE;
}

/** What is wrong with the verdict; empty when nothing is. */
std::string Check(const proto::Verdict& verdict)
{
    const auto id = static_cast<unsigned long long>(verdict.delivery_id());
    switch (verdict.kind())
    {
    case proto::Verdict::DONE:
    case proto::Verdict::RETRY:
    case proto::Verdict::DEAD:
        break;
    default:
        return SFormat("the verdict for delivery %llu has the kind %d: use DONE, RETRY or DEAD", id, verdict.kind());
    }
    if (verdict.reason().size() > longestReason)
    {
        return SFormat(
            "the reason for delivery %llu has %zu bytes: shorten it to %zu", id, verdict.reason().size(),
            longestReason);
    }
    if (verdict.retry_delay_ms() > longestRetryDelay)
    {
        return SFormat(
            "retry_delay_ms for delivery %llu is %u: the longest delay is %u, a quarter of an hour", id,
            verdict.retry_delay_ms(), longestRetryDelay);
    }
    return "";
}

ApplicationVerdict::Kind KindOf(proto::Verdict::Kind kind)
{
    switch (kind)
    {
    case proto::Verdict::RETRY:
        return ApplicationVerdict::Kind::retry;
    case proto::Verdict::DEAD:
        return ApplicationVerdict::Kind::dead;
    default:
        return ApplicationVerdict::Kind::done;
    }
}

std::string CheckWindow(std::uint32_t window)
{
    return window <= 65535 ? "" : SFormat("the window is %u: ask for 1 to 65535 deliveries", window);
}

} // namespace

AttachSession::AttachSession(ServiceContext context, boost::shared_ptr<Complaints> complaints)
    : m_context(std::move(context)), m_complaints(std::move(complaints))
{
}

void AttachSession::Start()
{
    m_self = shared_from_this();
    m_context.timers.After(
        helloDeadline,
        [weak = weak_from_this()]
        {
            const auto self = weak.lock();
            if (self)
            {
                self->CheckHello();
            }
        });
    StartRead(&m_received);
}

void AttachSession::Refuse(const grpc::Status& status)
{
    m_self = shared_from_this();
    EndWith(status);
}

void AttachSession::CheckHello()
{
    {
        const std::lock_guard lock(m_mutex);
        if (m_helloTaken)
        {
            return;
        }
    }
    End(SessionEnd::invalid, "no Hello came within 10 seconds: send AttachRequest.hello when the stream is open");
}

void AttachSession::ConfigurationChanged()
{
    Note(m_configurationDue);
}

void AttachSession::BrokerChanged()
{
    Note(m_brokerDue);
}

/** Before the welcome there is nothing to tell: that has it all. */
void AttachSession::Note(bool& due)
{
    {
        const std::lock_guard lock(m_mutex);
        due = m_helloTaken && !m_welcomeDue;
    }
    Flush();
}

void AttachSession::Enqueue(SessionDelivery delivery)
{
    const std::lock_guard lock(m_mutex);
    m_outbox.push_back(std::move(delivery));
}

std::vector<std::uint64_t> AttachSession::Recall()
{
    const std::lock_guard lock(m_mutex);
    std::vector<std::uint64_t> ids;
    ids.reserve(m_outbox.size());
    for (const SessionDelivery& delivery : m_outbox)
    {
        ids.push_back(delivery.id);
    }
    m_outbox.clear();
    return ids;
}

void AttachSession::Flush()
{
    {
        const std::lock_guard lock(m_mutex);
        if (m_writing || m_ending || !TakeNext())
        {
            return;
        }
        m_writing = true;
    }
    // Without the lock: enqueuing, for which the application's lock is held, does not wait for it.
    if (m_batch.empty())
    {
        Serialize(m_response, m_toSend);
    }
    else
    {
        SerializeBatch();
    }
    StartWrite(&m_toSend);
}

void AttachSession::End(SessionEnd why, const std::string& text)
{
    EndWith({CodeOf(why), text});
}

void AttachSession::OnReadDone(bool ok)
{
    if (!ok)
    {
        EndWith(grpc::Status::OK);
        return;
    }
    const std::string wrong = TakeRequest();
    if (!wrong.empty())
    {
        End(SessionEnd::invalid, wrong);
        return;
    }
    StartRead(&m_received);
}

void AttachSession::OnWriteDone(bool /*ok*/)
{
    // A write that failed is followed by a read that fails and by OnCancel, which end the session.
    // An idle stream would keep the bodies that it has sent last. They are freed without the lock.
    grpc::ByteBuffer sent;
    std::unique_lock lock(m_mutex);
    m_writing = false;
    m_toSend.Swap(&sent);
    if (m_batchBytes > mostBytesKept)
    {
        // Otherwise the response is reused, and its memory with it.
        m_response.Clear();
        m_spare.clear();
        m_batchBytes = 0;
    }
    if (!m_ending)
    {
        lock.unlock();
        // Before the next ones are made, so that there are never two.
        sent.Clear();
        Flush();
    }
    else if (!m_finished)
    {
        m_finished = true;
        const grpc::Status status = *m_ending;
        lock.unlock();
        Finish(status);
    }
}

void AttachSession::OnCancel()
{
    EndWith({grpc::StatusCode::CANCELLED, "the stream was cancelled"});
}

void AttachSession::OnDone()
{
    Detach();
    LogEnd();
    const boost::shared_ptr<AttachSession> last = std::move(m_self);
}

std::string AttachSession::TakeRequest()
{
    auto& request = *google::protobuf::Arena::CreateMessage<proto::AttachRequest>(&m_memory);
    std::string wrong = Parse(m_received, request);
    m_received.Clear();
    if (wrong.empty())
    {
        wrong = Take(request);
    }
    m_memory.Reset();
    return wrong;
}

std::string AttachSession::Take(const proto::AttachRequest& request)
{
    if (!m_helloTaken && request.kind_case() != proto::AttachRequest::kHello)
    {
        return "the first message of the stream must be AttachRequest.hello";
    }
    if (m_helloTaken && !m_id)
    {
        // It could not attach; the stream's end is on its way.
        return "";
    }
    switch (request.kind_case())
    {
    case proto::AttachRequest::kHello:
        return TakeHello(request.hello());
    case proto::AttachRequest::kVerdicts:
        return TakeVerdicts(request.verdicts());
    case proto::AttachRequest::kWindow:
        return TakeWindow(request.window());
    case proto::AttachRequest::kDetach:
        m_context.application->Leave(*m_id);
        break;
    case proto::AttachRequest::KIND_NOT_SET:
        break;
    }
    // A kind that a later version of the interface brings.
    return "";
}

std::string AttachSession::TakeHello(const proto::Hello& hello)
{
    if (m_helloTaken)
    {
        return "a second Hello came on the stream: to change the window send AttachRequest.window";
    }
    if (hello.instance().size() > longestInstance)
    {
        return SFormat("Hello.instance has %zu bytes: shorten it to %zu", hello.instance().size(), longestInstance);
    }
    std::string wrong = CheckWindow(hello.window());
    if (!wrong.empty())
    {
        return wrong;
    }
    m_instance = hello.instance();
    {
        const std::lock_guard lock(m_mutex);
        m_helloTaken = true;
        m_welcomeDue = true;
        m_response.mutable_welcome()->set_window(m_context.application->EffectiveWindow(hello.window()));
    }
    const auto id = m_context.application->Attach(shared_from_this(), hello.window());
    if (!id)
    {
        End(SessionEnd::unavailable, "the agent is stopping");
        return "";
    }
    QEL_LOG(
        vtx::LevelNotice, "application %s: instance %s attached with a window of %u",
        m_context.application->Name().c_str(), InstanceText().c_str(),
        m_context.application->EffectiveWindow(hello.window()));
    {
        const std::lock_guard lock(m_mutex);
        m_id = id;
    }
    Flush();
    return "";
}

std::string AttachSession::TakeVerdicts(const proto::VerdictBatch& batch)
{
    std::string wrong;
    m_verdicts.clear();
    for (const proto::Verdict& verdict : batch.verdicts())
    {
        wrong = Check(verdict);
        if (!wrong.empty())
        {
            break;
        }
        m_verdicts.push_back(
            {verdict.delivery_id(), KindOf(verdict.kind()), verdict.reason(),
             std::chrono::milliseconds(verdict.retry_delay_ms())});
    }
    const auto unknown = m_context.application->Answer(*m_id, m_verdicts);
    if (unknown)
    {
        return SFormat(
            "delivery %llu has had its verdict or was never sent on this stream: answer each delivery of this stream "
            "once",
            static_cast<unsigned long long>(*unknown));
    }
    return wrong;
}

std::string AttachSession::TakeWindow(const proto::WindowUpdate& update)
{
    std::string wrong =
        update.window() == 0 ? "the window is 0: ask for 1 to 65535 deliveries" : CheckWindow(update.window());
    if (wrong.empty())
    {
        m_context.application->SetWindow(*m_id, update.window());
    }
    return wrong;
}

/** Puts what waits into the response, deliveries into the batch; `false` when nothing does. With the lock held. */
bool AttachSession::TakeNext()
{
    if (m_welcomeDue)
    {
        m_welcomeDue = false;
        proto::Welcome& welcome = *m_response.mutable_welcome();
        welcome.set_application(m_context.application->Name());
        welcome.set_agent_version(m_context.agentVersion);
        welcome.set_ordering_key(m_context.application->Settings().orderingKey);
        welcome.mutable_broker()->set_state(ToProto(m_context.broker));
        ToProto(m_context.subscriptions.Status(m_context.application->Name()), *welcome.mutable_configuration());
        return true;
    }
    if (m_configurationDue)
    {
        m_configurationDue = false;
        m_response.mutable_configuration()->Clear();
        ToProto(m_context.subscriptions.Status(m_context.application->Name()), *m_response.mutable_configuration());
        return true;
    }
    if (m_brokerDue)
    {
        m_brokerDue = false;
        m_response.mutable_broker()->set_state(ToProto(m_context.broker));
        return true;
    }
    m_batchBytes = 0;
    bool isLarge = false;
    while (!m_outbox.empty() && m_batch.size() < mostInBatch && m_batchBytes < mostBytesInBatch && !isLarge)
    {
        isLarge = IsLarge(*m_outbox.front().message);
        if (isLarge && !m_batch.empty())
        {
            break;
        }
        m_batchBytes += m_outbox.front().message->GetFootprint();
        m_batch.push_back(std::move(m_outbox.front()));
        m_outbox.pop_front();
    }
    return !m_batch.empty();
}

/** Makes what is to be sent of the batch: one large body, or several others. */
void AttachSession::SerializeBatch()
{
    const RmqMessage& front = *m_batch.front().message;
    const bool isLarge = IsLarge(front);
    FillDeliveries(!isLarge);
    if (isLarge)
    {
        const auto body = front.GetBody();
        SerializeAlone(m_response.deliveries().deliveries(0), body, m_toSend);
        m_batchBytes -= body->length;
    }
    else
    {
        Serialize(m_response, m_toSend);
    }
}

void AttachSession::FillDeliveries(bool withBodies)
{
    auto& deliveries = *m_response.mutable_deliveries()->mutable_deliveries();
    int count = 0;
    for (const SessionDelivery& next : m_batch)
    {
        if (count == deliveries.size() && !m_spare.empty())
        {
            deliveries.AddAllocated(m_spare.back().release());
            m_spare.pop_back();
        }
        proto::Delivery& delivery = count < deliveries.size() ? deliveries[count] : *deliveries.Add();
        ToProto(next, m_context.subscriptions.IsPriorityQueue(next.message->GetQueue()), delivery);
        const auto body = next.message->GetBody();
        if (withBodies && body->length != 0)
        {
            delivery.set_body(body->bytes, body->length);
        }
        delivery.set_idempotency_key(
            IdempotencyKey(m_context.application->Name(), next.message->GetProperties()->messageId));
        ++count;
    }
    m_batch.clear();
    while (deliveries.size() > count)
    {
        m_spare.emplace_back(deliveries.ReleaseLast());
    }
}

void AttachSession::EndWith(const grpc::Status& status)
{
    Detach();
    std::unique_lock lock(m_mutex);
    m_outbox.clear();
    if (m_ending)
    {
        return;
    }
    m_ending = status;
    if (!m_writing)
    {
        m_finished = true;
        lock.unlock();
        Finish(status);
    }
}

/** What the instance did wrong is the operator's business in any case; that it comes and goes only when he asks. */
void AttachSession::LogEnd()
{
    std::unique_lock lock(m_mutex);
    const grpc::Status status = m_ending.value_or(grpc::Status::CANCELLED);
    const bool wasAttached = m_id.has_value();
    lock.unlock();
    const std::string instance = InstanceText();
    const bool isFault = status.error_code() == grpc::StatusCode::INVALID_ARGUMENT ||
                         status.error_code() == grpc::StatusCode::DEADLINE_EXCEEDED ||
                         status.error_code() == grpc::StatusCode::RESOURCE_EXHAUSTED;
    if (isFault)
    {
        m_complaints->Write(SFormat("ended instance %s: %s", instance.c_str(), status.error_message().c_str()));
    }
    else if (wasAttached)
    {
        QEL_LOG(
            vtx::LevelNotice, "application %s: instance %s detached: %s", m_context.application->Name().c_str(),
            instance.c_str(), status.ok() ? "its stream has ended" : status.error_message().c_str());
    }
}

void AttachSession::Detach()
{
    std::unique_lock lock(m_mutex);
    const std::optional<Application::SessionId> id = m_id;
    lock.unlock();
    if (id)
    {
        m_context.application->Detach(*id);
    }
}

} // namespace VtxQel

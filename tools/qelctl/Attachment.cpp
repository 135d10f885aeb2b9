#include "Attachment.h"

namespace VtxQel
{

namespace v1 = qel::apps::v1;

Attachment::Attachment(const AttachSettings& settings, DeliveryPrinter& printer, std::uint64_t mostDeliveries)
    : m_settings(settings), m_printer(printer), m_mostDeliveries(mostDeliveries)
{
}

void Attachment::Start(const std::string& socket)
{
    grpc::ChannelArguments arguments;
    arguments.SetMaxReceiveMessageSize(-1);
    // Without a pool of its own a new channel would inherit the back-off of the one before.
    arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
    m_stub = v1::Applications::NewStub(
        grpc::CreateCustomChannel("unix:" + socket, grpc::InsecureChannelCredentials(), arguments));
    m_outgoing.mutable_hello()->set_instance(m_settings.instance);
    m_outgoing.mutable_hello()->set_window(m_settings.window);

    m_stub->async()->Attach(&m_context, this);
    StartWrite(&m_outgoing);
    StartRead(&m_incoming);
    StartCall();
}

void Attachment::Detach()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_detaching = true;
    m_changed.notify_all();
    WriteMore();
}

void Attachment::WaitUntilEnding()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait(lock, [this] { return m_done || m_detaching; });
}

bool Attachment::Wait(std::chrono::milliseconds patience)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, patience, [this] { return m_done; });
}

void Attachment::OnReadDone(bool ok)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (!ok)
    {
        m_readEnded = true;
        return;
    }
    Take(m_incoming);
    WriteMore();
    StartRead(&m_incoming);
}

void Attachment::Take(const v1::AttachResponse& response)
{
    switch (response.kind_case())
    {
    case v1::AttachResponse::kWelcome:
        m_welcomed = true;
        m_printer.PrintWelcome(response.welcome());
        break;
    case v1::AttachResponse::kConfiguration:
        m_printer.PrintConfiguration(response.configuration());
        break;
    case v1::AttachResponse::kDeliveries:
        for (const v1::Delivery& delivery : response.deliveries().deliveries())
        {
            TakeDelivery(delivery);
        }
        break;
    case v1::AttachResponse::kBroker:
    case v1::AttachResponse::KIND_NOT_SET:
        // Of no concern here, or something that only a newer agent says.
        break;
    }
}

void Attachment::TakeDelivery(const v1::Delivery& delivery)
{
    if (m_detaching)
    {
        return;
    }
    m_printer.PrintDelivery(delivery);
    v1::Verdict* verdict = m_waiting.mutable_verdicts()->add_verdicts();
    verdict->set_delivery_id(delivery.delivery_id());
    verdict->set_kind(m_settings.verdict);
    verdict->set_reason(m_settings.reason);
    verdict->set_retry_delay_ms(m_settings.retryDelayMs);
    if (++m_deliveries == m_mostDeliveries)
    {
        m_detaching = true;
        m_changed.notify_all();
    }
}

// An operation may only be started while another is under way: the read is, until it has ended.
void Attachment::WriteMore()
{
    if (m_writing || m_readEnded || m_writesDone)
    {
        return;
    }
    if (m_waiting.has_verdicts())
    {
        m_outgoing.Swap(&m_waiting);
        m_waiting.Clear();
        m_writing = true;
        StartWrite(&m_outgoing);
    }
    else if (m_detaching)
    {
        m_writesDone = true;
        StartWritesDone();
    }
}

void Attachment::OnWriteDone(bool ok)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    // After a failed write the stream is over and OnDone says why.
    m_writing = !ok;
    WriteMore();
}

void Attachment::OnDone(const grpc::Status& status)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_status = status;
    m_done = true;
    m_changed.notify_all();
}

} // namespace VtxQel

#include "Attachment.h"

#include <utility>

namespace qel
{

namespace v1 = apps::v1;

void Attachment::Start(v1::Applications::Stub& stub, const v1::Hello& hello)
{
    *m_outgoing.mutable_hello() = hello;
    stub.async()->Attach(&m_context, this);
    StartWrite(&m_outgoing);
    StartRead(&m_incoming);
    StartCall();
}

std::optional<v1::Delivery> Attachment::Next()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!HasToEnd() && m_deliveries.empty())
    {
        if (m_detachUntil)
        {
            m_changed.wait_until(lock, *m_detachUntil);
        }
        else
        {
            m_changed.wait(lock);
        }
    }
    if (HasToEnd())
    {
        return std::nullopt;
    }
    std::optional<v1::Delivery> next(std::move(m_deliveries.front()));
    m_deliveries.pop_front();
    return next;
}

bool Attachment::HasToEnd() const
{
    return m_readEnded || m_done || (m_detachUntil && std::chrono::steady_clock::now() >= *m_detachUntil);
}

void Attachment::Answer(v1::Verdict verdict)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    *m_waiting.mutable_verdicts()->add_verdicts() = std::move(verdict);
    WriteMore();
}

void Attachment::Detach(std::chrono::milliseconds patience)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_detachUntil = std::chrono::steady_clock::now() + patience;
    m_detachDue = true;
    WriteMore();
    m_changed.notify_all();
}

grpc::Status Attachment::Finish(std::chrono::milliseconds patience)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_finishing = true;
    WriteMore();
    if (!m_changed.wait_for(lock, patience, [this] { return m_done; }))
    {
        m_context.TryCancel();
        m_changed.wait(lock, [this] { return m_done; });
    }
    return m_status;
}

void Attachment::OnReadDone(bool ok)
{
    if (ok)
    {
        m_observer(m_incoming);
    }
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (!ok)
    {
        m_readEnded = true;
        m_changed.notify_all();
        return;
    }
    Take(m_incoming);
    WriteMore();
    StartRead(&m_incoming);
}

void Attachment::Take(v1::AttachResponse& response)
{
    m_welcomed = m_welcomed || response.has_welcome();
    if (response.has_deliveries())
    {
        for (v1::Delivery& delivery : *response.mutable_deliveries()->mutable_deliveries())
        {
            m_deliveries.push_back(std::move(delivery));
        }
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
    else if (m_detachDue)
    {
        m_detachDue = false;
        m_outgoing.mutable_detach();
        m_writing = true;
        StartWrite(&m_outgoing);
    }
    else if (m_finishing)
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
    bool welcomed = false;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        welcomed = m_welcomed;
    }
    m_endObserver(welcomed, status);
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_status = status;
    m_done = true;
    m_changed.notify_all();
}

} // namespace qel

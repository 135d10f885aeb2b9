#include "broker/MoveTrial.h"

#include "broker/TopologyRpc.h"
#include "common/QelException.h"

#include <utility>

namespace VtxQel
{

namespace
{

void Dismiss(const std::shared_ptr<AmqpConnection>& connection)
{
    if (connection)
    {
        connection->SetHandler(nullptr);
        connection->Close();
    }
}

} // namespace

MoveTrial::MoveTrial(
    boost::asio::io_context& io, ConnectionSource& source, LinkListener& listener, Plan plan, Done done)
    : m_source(source), m_listener(listener), m_plan(std::move(plan)), m_done(std::move(done)),
      m_publishingOpen(!m_plan.publishing), m_watch(io)
{
}

MoveTrial::~MoveTrial()
{
    Dismiss(m_result.consuming);
    Dismiss(m_result.publishing);
}

void MoveTrial::Start()
{
    try
    {
        m_result.consuming = m_source.Make(m_plan.urlIndex, ConnectionUse::consuming, *this);
        m_result.consuming->Open();
        if (m_plan.publishing)
        {
            m_result.publishing = m_source.Make(m_plan.urlIndex, ConnectionUse::publishing, m_publishingHandler);
            m_result.publishing->Open();
        }
    }
    catch (const RmqException& e)
    {
        Fail(e.what());
    }
}

MoveTrial::Result MoveTrial::Take()
{
    m_over = true;
    m_watch.cancel();
    return std::exchange(m_result, {});
}

void MoveTrial::Publishing::OnOpen()
{
    m_trial.m_publishingOpen = true;
    m_trial.CheckReady();
}

void MoveTrial::Publishing::OnClosed(const std::string& why)
{
    m_trial.Fail(why);
}

void MoveTrial::OnOpen()
{
    m_result.rpc = std::make_unique<RpcChannel>(*m_result.consuming, RPC_CHANNEL);
    const DesiredTopology desired = m_listener.OnConnected();
    m_restoration.Begin(DesiredTopology{desired.exchanges, desired.ownQueues, {}, {}});
    Watch();
    Pump();
}

void MoveTrial::OnMethod(std::uint16_t channel, const amqp_method_t& method)
{
    if (channel != RPC_CHANNEL)
    {
        throw RmqConnectionException("received a frame on channel " + std::to_string(channel) + ", which is not open");
    }
    m_result.rpc->OnMethod(method);
}

void MoveTrial::OnClosed(const std::string& why)
{
    Fail(why);
}

/** As long as something is awaited there has to be an answer now and then. */
void MoveTrial::Watch()
{
    m_watch.expires_after(m_source.Settings().queuePatience);
    m_watch.async_wait(
        [weak = weak_from_this(), before = m_replies](const boost::system::error_code& error)
        {
            const auto self = weak.lock();
            if (error || !self || self->m_over)
            {
                return;
            }
            if (self->m_restoration.IsAwaited() && self->m_replies == before)
            {
                self->Fail("the broker does not answer while queues and bindings are made");
                return;
            }
            self->Watch();
        });
}

void MoveTrial::Pump()
{
    while (!m_over)
    {
        const Restoration::Request next = m_restoration.Next();
        if (!next)
        {
            break;
        }
        m_result.rpc->Call(ToRpc(
            next,
            [weak = weak_from_this(), next](const RpcReply& reply)
            {
                if (const auto self = weak.lock())
                {
                    self->OnReply(*next, reply);
                }
            }));
    }
    CheckReady();
}

void MoveTrial::OnReply(const TopologyRequest& request, const RpcReply& reply)
{
    if (m_over)
    {
        return;
    }
    ++m_replies;
    const std::string what = request.ToString();
    if (!reply.ok && m_plan.tolerated.count(what) == 0)
    {
        Fail(what + ": " + (reply.code == 0 ? "" : std::to_string(reply.code) + " ") + reply.text);
        return;
    }
    if (!reply.ok && request.kind == TopologyRequest::Kind::bind)
    {
        m_result.lacking.insert(request.binding);
    }
    m_restoration.Finished();
    Pump();
}

void MoveTrial::CheckReady()
{
    if (m_over || m_ready || !m_publishingOpen || !m_restoration.IsDone())
    {
        return;
    }
    if (AddWhatIsNew())
    {
        Pump();
        return;
    }
    m_ready = true;
    m_done({});
}

/** @return whether there is more to be made than has been. */
bool MoveTrial::AddWhatIsNew()
{
    const DesiredTopology desired = m_listener.OnConnected();
    for (const Binding& binding : desired.bindings)
    {
        if (m_bindings.insert(binding).second)
        {
            m_restoration.Add(ToRestore(binding));
        }
    }
    for (const QueueSpec& queue : desired.applicationQueues)
    {
        if (m_queues.insert(queue.name).second)
        {
            m_restoration.Add(ToRestore(queue));
        }
    }
    return !m_restoration.IsDone();
}

void MoveTrial::Fail(const std::string& why)
{
    if (!std::exchange(m_over, true))
    {
        m_watch.cancel();
        m_done(why);
    }
}

} // namespace VtxQel

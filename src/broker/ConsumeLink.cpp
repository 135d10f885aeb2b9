#include "broker/ConsumeLink.h"

#include "broker/TopologyRpc.h"
#include "common/QelException.h"
#include "logging/Log.h"

#include <algorithm>
#include <utility>

namespace VtxQel
{

using boost::system::error_code;
using Kind = TopologyRequest::Kind;
using Milliseconds = std::chrono::milliseconds;

namespace
{

constexpr std::uint16_t RPC_CHANNEL = MoveTrial::RPC_CHANNEL;
constexpr Milliseconds REQUEST_RETRY{250};
constexpr Milliseconds REQUEST_RETRY_CAP{4000};
constexpr Milliseconds RESTORE_RETRY{1000};
constexpr Milliseconds RESTORE_RETRY_CAP{30000};
/** How long an answer may still take when an echo has shown that the line is free. */
constexpr Milliseconds OWED{1000};
/** How often to look during the patience with a broker that is silent. */
constexpr int SILENT_LOOKS = 5;
constexpr Milliseconds WORKED_OFF = LeavingConnection::WORKED_OFF;

Milliseconds Doubled(Milliseconds first, unsigned times, Milliseconds cap)
{
    return std::min(first * (1 << std::min(times, 10U)), cap);
}

} // namespace

ConsumeLink::ConsumeLink(
    boost::asio::io_context& io, ConnectionSource& source, LinkListener& listener, LinkState& state)
    : m_io(io), m_source(source), m_listener(listener), m_state(state), m_backOff(source.UrlCount()),
      m_connectTimer(io), m_firstDeadline(io),
      m_silent(
          io, source, [this] { return m_urlIndex; }, [this](const std::string& queue) { TakeUp(queue); },
          [this](const std::string& queue) { GiveUpWaiting(queue); })
{
}

void ConsumeLink::Start()
{
    const Milliseconds limit = m_source.Settings().firstConnectDeadline;
    if (limit.count() > 0)
    {
        m_firstDeadline.expires_after(limit);
        m_firstDeadline.async_wait(
            [this](const error_code& error)
            {
                if (!error && !m_everOpen)
                {
                    GiveUp();
                }
            });
    }
    Connect();
}

void ConsumeLink::GiveUp()
{
    m_gaveUp = true;
    m_connectTimer.cancel();
    if (m_connection)
    {
        std::exchange(m_connection, nullptr)->Drop();
    }
    m_listener.OnGaveUp(m_lastError.empty() ? "no connection to the broker yet" : m_lastError);
}

void ConsumeLink::Connect()
{
    // A timer that was cancelled when it had expired comes all the same.
    if (m_stopping || m_gaveUp || m_connection)
    {
        return;
    }
    const std::string url = m_source.Url(m_urlIndex).Printable();
    m_state.Update(
        [&](LinkStatus& status)
        {
            status.url = url;
            status.urlIndex = m_urlIndex;
        });
    try
    {
        m_connection = m_source.Make(m_urlIndex, ConnectionUse::consuming, *this);
        m_connection->Open();
    }
    catch (const RmqException& e)
    {
        OnClosed(e.what());
    }
}

void ConsumeLink::ConnectLater()
{
    m_connectTimer.expires_after(m_backOff.Next());
    m_connectTimer.async_wait(
        [this](const error_code& error)
        {
            if (!error)
            {
                Connect();
            }
        });
}

void ConsumeLink::OnOpen()
{
    m_firstDeadline.cancel();
    m_openedAt = std::chrono::steady_clock::now();
    m_state.Update(
        [&](LinkStatus& status)
        {
            status.connected = true;
            status.connectedAt = m_openedAt;
            status.reconnects += m_everOpen ? 1 : 0;
            status.reconnectsBy[static_cast<std::size_t>(m_endCause)] += m_everOpen ? 1 : 0;
            status.lastError.clear();
        });
    m_everOpen = true;
    QEL_LOG(vtx::LevelStatus, "Connected to the broker %s", m_source.Url(m_urlIndex).Printable().c_str());
    m_rpc = std::make_unique<RpcChannel>(*m_connection, RPC_CHANNEL);
    MakeConsumers();
    m_onOpen();
    Restore(m_listener.OnConnected());
}

void ConsumeLink::MakeConsumers()
{
    const std::uint16_t last = m_connection->ChannelMax();
    m_consumers = std::make_unique<Consumers>(
        *m_connection, Consumers::Channels{RPC_CHANNEL + 1, static_cast<std::uint16_t>(last - 1)},
        Consumers::Context{
            m_listener, m_generation,
            [this, connection = m_connection.get()](const std::string& queue, bool deleted, const std::string& why)
            {
                // The connection that was left has none to lose.
                if (connection == m_connection.get())
                {
                    OnConsumerLost(queue, deleted, why);
                }
            }});
    m_echo = std::make_unique<Echo>(*m_connection, last);
}

void ConsumeLink::Restore(DesiredTopology desired)
{
    m_connection->PauseReading(m_paused);
    m_restoration.Begin(desired);
    m_base = DesiredTopology{std::move(desired.exchanges), std::move(desired.ownQueues), {}, {}};
    WatchRestoration();
    WatchBase(0);
    Pump();
}

/** A broker that has just started may never answer a request of its first moments; a new connection gets its answers.
 */
void ConsumeLink::WatchRestoration()
{
    After(
        m_source.Settings().queuePatience,
        [this, before = m_restoreReplies]
        {
            const auto isSilent = [this, before]
            { return m_restoration.IsAwaited() && m_restoreReplies == before && !m_paused; };
            if (!isSilent())
            {
                WatchRestoration();
                return;
            }
            AfterEcho(
                [this, isSilent]
                {
                    if (!isSilent())
                    {
                        WatchRestoration();
                        return;
                    }
                    const auto connection = m_connection;
                    connection->Abort("the broker does not answer while queues and bindings are restored");
                });
        });
}

/**
 * A node of a cluster that has just lost another asks that one for a queue and waits seconds for its answer. Asked anew
 * it mostly knows better; what it was asked before stays stuck.
 */
void ConsumeLink::WatchBase(int silentLooks)
{
    After(
        m_source.Settings().ownQueuePatience / SILENT_LOOKS,
        [this, silentLooks, before = m_restoreReplies]
        {
            if (m_restoration.IsBaseReady() || m_renewals == MOST_RENEWALS)
            {
                return;
            }
            const bool silent = m_restoration.IsAwaited() && m_restoreReplies == before && !m_paused;
            if (!silent || silentLooks + 1 < SILENT_LOOKS)
            {
                WatchBase(silent ? silentLooks + 1 : 0);
                return;
            }
            ++m_renewals;
            m_moving = true;
            const auto connection = m_connection;
            connection->Abort("the broker does not answer for the agent's own queues", EndCause::unanswered);
        });
}

void ConsumeLink::OnMethod(std::uint16_t channel, const amqp_method_t& method)
{
    if (channel == RPC_CHANNEL)
    {
        m_rpc->OnMethod(method);
    }
    else if (channel == m_echo->Channel())
    {
        m_echo->OnMethod(method);
    }
    else
    {
        m_consumers->OnMethod(channel, method);
    }
}

void ConsumeLink::OnContent(std::uint16_t channel, AmqpContent&& content)
{
    m_consumers->OnContent(channel, std::move(content));
}

void ConsumeLink::OnBlocked(bool, const std::string&)
{
    // Nothing is published here, so nothing waits.
}

void ConsumeLink::OnReadEnd()
{
    // Settlements wait for the next batch of them: one for each read would be one for each message.
    if (m_consumers)
    {
        CloseDrainedLater();
    }
}

void ConsumeLink::OnClosed(const std::string& why)
{
    // Kept until the end of the call, which comes from them.
    const auto connection = std::exchange(m_connection, nullptr);
    const auto rpc = std::exchange(m_rpc, nullptr);
    const auto consumers = std::exchange(m_consumers, nullptr);
    const auto echo = std::exchange(m_echo, nullptr);
    m_lastError = why;
    m_state.Update(
        [&](LinkStatus& status)
        {
            status.connected = false;
            status.restored = false;
            status.lastError = why;
        });
    if (rpc)
    {
        m_endCause = connection->Cause();
        rpc->Fail(why);
        consumers->Fail(why);
    }
    ForgetRestoration();
    if (rpc)
    {
        const std::string url = m_source.Url(m_urlIndex).Printable();
        if (m_stopping)
        {
            QEL_LOG(vtx::LevelStatus, "Connection to the broker %s closed", url.c_str());
        }
        else
        {
            m_source.Warnings().Write("Connection to the broker " + url + " ended: " + why);
        }
        m_backOff.Lasted(std::chrono::steady_clock::now() - m_openedAt);
        m_listener.OnDisconnected(why);
    }
    else if (!m_stopping && !m_moving)
    {
        m_source.Warnings().Write("Cannot connect to the broker " + m_source.Url(m_urlIndex).Printable() + ": " + why);
        if (connection && connection->IsRefused())
        {
            m_listener.OnLoginRefused(why);
        }
    }
    if (m_stopping)
    {
        if (auto stopped = std::exchange(m_stopped, nullptr))
        {
            stopped();
        }
    }
    else if (std::exchange(m_moving, false))
    {
        Connect();
    }
    else if (!ReturnOrGoOn())
    {
        ConnectElsewhere();
    }
}

void ConsumeLink::ConnectElsewhere()
{
    m_urlIndex = (m_urlIndex + 1) % m_source.UrlCount();
    ConnectLater();
}

/** What was being made on the connection is to be made anew on the next one. */
void ConsumeLink::ForgetRestoration()
{
    ++m_connectionNumber;
    m_restoration.Abandon();
    m_restored = Restored::no;
    std::erase_if(m_heldBack, [](const auto& held) { return held.second->restoring; });
    m_recoveries.clear();
    m_recovering.clear();
    m_closingDrained = false;
    m_lacking.clear();
}

void ConsumeLink::GoTo(std::size_t urlIndex)
{
    if (m_stopping || m_gaveUp)
    {
        return;
    }
    m_connectTimer.cancel();
    FlushSettlements();
    m_urlIndex = urlIndex;
    m_moving = true;
    if (const auto connection = m_connection)
    {
        connection->Close();
    }
    else
    {
        m_moving = false;
        Connect();
    }
}

void ConsumeLink::Stop(std::function<void()> stopped)
{
    m_stopping = true;
    m_connectTimer.cancel();
    m_firstDeadline.cancel();
    m_silent.Stop();
    if (m_leaving)
    {
        m_leaving->Flush();
        m_leaving->Close();
    }
    for (const Request& request : std::set<Request>(m_requests))
    {
        Complete(request, {Answer::unanswered, 0, "the connection to the broker is being closed"});
    }
    if (const auto connection = m_connection)
    {
        FlushSettlements();
        m_stopped = std::move(stopped);
        connection->Close();
    }
    else
    {
        stopped();
    }
}

void ConsumeLink::Reconnect(const std::string& why)
{
    if (m_rpc && !m_stopping)
    {
        QEL_LOG(vtx::LevelWarning, "Leaving the connection to the broker: %s", why.c_str());
        FlushSettlements();
        m_connection->Close(EndCause::probe);
    }
}

void ConsumeLink::Abort()
{
    if (const auto connection = m_connection)
    {
        connection->Abort("closed");
    }
}

void ConsumeLink::Settle(const DeliveryTag& tag, SettleAs as)
{
    const bool ours = m_consumers && m_consumers->Settle(tag, as);
    if (!ours && m_leaving)
    {
        m_leaving->Settle(tag, as);
    }
}

bool ConsumeLink::IsStarving() const
{
    return (m_consumers && m_consumers->IsStarving()) || (m_leaving && m_leaving->IsStarving());
}

void ConsumeLink::FlushSettlements()
{
    m_collect();
    if (m_leaving)
    {
        m_leaving->Flush();
    }
    if (m_consumers)
    {
        m_consumers->Flush();
        CloseDrainedLater();
    }
}

void ConsumeLink::CloseDrainedLater()
{
    if (m_closingDrained || !m_consumers->HasDrained())
    {
        return;
    }
    m_closingDrained = true;
    After(
        WORKED_OFF,
        [this]
        {
            m_closingDrained = false;
            m_consumers->CloseDrained(std::chrono::steady_clock::now() - WORKED_OFF);
            CloseDrainedLater();
        });
}

void ConsumeLink::StopConsuming()
{
    m_consuming = false;
    m_consumed.clear();
    if (m_consumers)
    {
        m_consumers->CancelAll([] {});
    }
}

void ConsumeLink::PauseReading(bool paused)
{
    m_paused = paused;
    // While quiescing what the broker answers is waited for.
    if (m_rpc && m_move != Move::quiescing)
    {
        m_connection->PauseReading(paused);
    }
}

void ConsumeLink::Submit(Request request)
{
    if (m_stopping)
    {
        Complete(request, {Answer::unanswered, 0, "the connection to the broker is being closed"});
        return;
    }
    if (const auto answer = AnswerWithoutBroker(*request))
    {
        Complete(request, *answer);
        return;
    }
    if (request->kind == Kind::bind)
    {
        m_restoration.Want(request->binding);
    }
    else if (request->kind == Kind::declareQueue)
    {
        m_restoration.WantQueue(request->queue.name);
    }
    auto timer = std::make_shared<boost::asio::steady_timer>(m_io, request->deadline);
    timer->async_wait(
        [this, weak = std::weak_ptr<TopologyRequest>(request)](const error_code& error)
        {
            const Request late = weak.lock();
            if (!error && late && late->done)
            {
                const RequestResult& last = late->lastFailure;
                const std::string why = last.text.empty() ? m_lastError : last.text;
                Complete(
                    late, {Answer::unanswered, last.code,
                           "no answer within the deadline" + (why.empty() ? "" : "; last: " + why)});
            }
        });
    request->timer = std::move(timer);
    m_requests.insert(request);
    if ((request->kind == Kind::cancelQueue || request->kind == Kind::releaseQueue) && m_move != Move::quiescing)
    {
        StopQueue(request);
        return;
    }
    m_ready.push_back(std::move(request));
    Pump();
}

void ConsumeLink::Complete(const Request& request, const RequestResult& result, const QueueCounts& counts)
{
    request->timer.reset();
    m_requests.erase(request);
    if (const auto done = std::exchange(request->done, nullptr))
    {
        done(result, counts);
    }
}

void ConsumeLink::Pump()
{
    if (m_pumping || !m_rpc || m_move == Move::quiescing)
    {
        return;
    }
    m_pumping = true;
    while (m_rpc)
    {
        Request next;
        if (m_restoration.IsBaseReady() && !m_ready.empty())
        {
            next = std::move(m_ready.front());
            m_ready.pop_front();
        }
        else
        {
            next = m_restoration.Next();
            if (!next && !(m_restoration.IsBaseReady() && !m_ready.empty()))
            {
                break;
            }
        }
        if (next && (next->restoring || next->done))
        {
            Execute(next);
        }
    }
    m_pumping = false;
    CheckRestored();
}

void ConsumeLink::CheckRestored()
{
    if (m_rpc && m_restoration.IsBaseReady())
    {
        m_renewals = 0;
    }
    const Restored now = m_restoration.IsComplete() ? Restored::wholly : Restored::mostly;
    if (!m_rpc || !m_restoration.IsDone() || !m_recovering.empty() || now == m_restored)
    {
        return;
    }
    m_restored = now;
    m_state.Update([&](LinkStatus& status) { status.restored = now == Restored::wholly; });
    const std::string but = now == Restored::wholly ? "" : " but for applications' queues that it cannot provide yet";
    QEL_LOG(vtx::LevelStatus, "Queues and bindings on the broker are in place%s", (but + PauseText()).c_str());
    m_listener.OnRestored();
}

void ConsumeLink::Execute(const Request& request)
{
    switch (request->kind)
    {
    case Kind::declareQueue:
        DeclareQueue(request);
        return;
    case Kind::cancelQueue:
    case Kind::releaseQueue:
        StopQueue(request);
        return;
    case Kind::bind:
        m_unboundWhileMoving.erase(request->binding);
        break;
    case Kind::unbind:
        if (!m_restoration.IsComplete())
        {
            m_restoration.GiveUp(request->binding);
        }
        if (m_move != Move::none)
        {
            m_unboundWhileMoving.insert(request->binding);
        }
        break;
    default:
        break;
    }
    m_rpc->Call(ToRpc(request, [this, request](const RpcReply& reply) { OnReply(request, reply); }));
}

void ConsumeLink::DeclareQueue(const Request& request)
{
    if (request->queue.prefetch > 0 && m_silent.Contains(request->queue.name))
    {
        HoldBack(request);
        return;
    }
    m_rpc->Call(ToRpc(
        request,
        [this, request](const RpcReply& reply)
        {
            if (!reply.ok || request->queue.prefetch == 0 || !m_consuming || !IsWanted(*request))
            {
                OnReply(request, reply);
            }
            else if (m_move == Move::quiescing)
            {
                PutOff(request);
            }
            else
            {
                Consume(request);
            }
        }));
}

void ConsumeLink::Consume(const Request& request)
{
    const QueueSpec& queue = request->queue;
    m_consumed[queue.name] = queue;
    m_consumers->Start(queue, [this, request](const RpcReply& started) { OnReply(request, started); });
    const std::uint64_t generation = m_consumers->StartingAs(queue.name);
    if (generation != 0 && !m_restoration.IsOwnQueue(queue.name))
    {
        WatchConsumer(queue.name, generation);
    }
}

/**
 * A queue for which the broker does not answer costs the connection sooner or later: better now, and once. The next
 * connection leaves it to the trials.
 */
void ConsumeLink::WatchConsumer(const std::string& queue, std::uint64_t generation)
{
    After(
        m_source.Settings().queuePatience,
        [this, queue, generation]
        {
            // It may have been cancelled meanwhile and be starting anew.
            if (m_consumers->StartingAs(queue) != generation)
            {
                return;
            }
            if (m_paused)
            {
                WatchConsumer(queue, generation);
                return;
            }
            AfterEcho([this, queue, generation] { LeaveSilent(queue, generation); });
        });
}

void ConsumeLink::LeaveSilent(const std::string& queue, std::uint64_t generation)
{
    if (m_consumers->StartingAs(queue) != generation)
    {
        return;
    }
    for (const std::string& silent : m_consumers->Starting())
    {
        if (!m_restoration.IsOwnQueue(silent))
        {
            m_silent.Add(silent);
        }
    }
    const auto connection = m_connection;
    connection->Abort("the broker does not answer for queue " + queue);
}

void ConsumeLink::HoldBack(const Request& request)
{
    const std::string& queue = request->queue.name;
    if (!request->restoring && m_silent.IsTried(queue))
    {
        Complete(request, {Answer::unanswered, 0, "the broker does not answer for queue " + queue});
        return;
    }
    if (request->restoring)
    {
        m_restoration.Delayed(*request);
    }
    m_heldBack.emplace(queue, request);
}

/** The broker answers for the queue again, or nobody wants it any more. */
void ConsumeLink::TakeUp(const std::string& queue)
{
    const auto [first, last] = m_heldBack.equal_range(queue);
    std::vector<Request> requests;
    for (auto held = first; held != last; ++held)
    {
        requests.push_back(held->second);
    }
    m_heldBack.erase(first, last);
    for (const Request& request : requests)
    {
        if (request->restoring)
        {
            m_restoration.Resume(request);
        }
        else
        {
            m_ready.push_back(request);
        }
    }
    if (!requests.empty())
    {
        Pump();
    }
}

/** A trial was in vain: who asked hears of it, what is to be restored goes on waiting. */
void ConsumeLink::GiveUpWaiting(const std::string& queue)
{
    const auto [first, last] = m_heldBack.equal_range(queue);
    std::vector<Request> requests;
    for (auto held = first; held != last;)
    {
        if (held->second->restoring)
        {
            ++held;
            continue;
        }
        requests.push_back(held->second);
        held = m_heldBack.erase(held);
    }
    for (const Request& request : requests)
    {
        HoldBack(request);
    }
}

void ConsumeLink::DeclareBaseAgain()
{
    const auto ignore = [](const RpcReply&) {};
    for (const ExchangeSpec& exchange : m_base.exchanges)
    {
        m_rpc->Call(ToRpc(ToRestore(exchange), ignore));
    }
    for (const QueueSpec& queue : m_base.ownQueues)
    {
        m_rpc->Call(ToRpc(ToRestore(queue), ignore));
    }
}

void ConsumeLink::StopQueue(const Request& request)
{
    const std::string& queue = request->queue.name;
    m_consumed.erase(queue);
    if (!m_restoration.IsComplete())
    {
        m_restoration.GiveUpQueue(queue);
    }
    m_silent.Remove(queue);
    TakeUp(queue);
    FlushSettlements();
    const auto done = [this, request](const RpcReply&) { Complete(request, {Answer::ok, 0, {}}); };
    if (!m_consumers)
    {
        // The consumer died with the connection, and what was unsettled went back.
        done({});
    }
    else if (request->kind == Kind::cancelQueue)
    {
        m_consumers->Cancel(queue, done);
    }
    else
    {
        // Told when both have given everything back.
        const std::shared_ptr<void> last(nullptr, [done](void*) { done({}); });
        m_consumers->Release(queue, [last](const RpcReply&) {});
        if (m_leaving)
        {
            m_leaving->Release(queue, [last](const RpcReply&) {});
        }
    }
}

void ConsumeLink::OnReply(const Request& request, const RpcReply& reply)
{
    Outcome outcome = Classify(request->kind, reply);
    // What nobody waits for any more may have been undone behind it.
    if (outcome == Outcome::missing && m_rpc && IsWanted(*request) && !std::exchange(request->redeclared, true))
    {
        DeclareBaseAgain();
        Execute(request);
        return;
    }
    outcome = outcome == Outcome::missing ? Outcome::refused : outcome;
    if (request->restoring)
    {
        OnRestoreReply(request, reply, outcome);
        return;
    }
    if (!request->done)
    {
        return;
    }
    if (outcome == Outcome::inUse && !IsStillInUse(*request))
    {
        outcome = Outcome::refused;
    }
    if (outcome == Outcome::ok)
    {
        Complete(request, {Answer::ok, 0, {}}, {reply.messageCount, reply.consumerCount});
    }
    else if (outcome == Outcome::refused)
    {
        Complete(request, {Answer::refused, reply.code, reply.text});
    }
    else
    {
        Retry(request, reply);
    }
}

/** Whether somebody waits for it, or the restoration has not given it up. */
bool ConsumeLink::IsWanted(const TopologyRequest& request) const
{
    return request.restoring ? !m_restoration.IsGivenUp(request) : request.done != nullptr;
}

/** Whether it is too early to believe that another consumer has the queue for good. */
bool ConsumeLink::IsStillInUse(TopologyRequest& request) const
{
    const auto now = TopologyRequest::Clock::now();
    request.inUseSince = request.inUseSince.value_or(now);
    return now - *request.inUseSince < 3 * m_source.Settings().heartbeat + std::chrono::seconds(5);
}

void ConsumeLink::Retry(const Request& request, const RpcReply& reply)
{
    request->lastFailure = {Answer::unanswered, reply.code, reply.text};
    if (reply.code == 0)
    {
        m_ready.push_back(request);
        return;
    }
    auto timer = std::make_shared<boost::asio::steady_timer>(
        m_io, Doubled(REQUEST_RETRY, request->failures++, REQUEST_RETRY_CAP));
    timer->async_wait(
        [this, request, timer](const error_code&)
        {
            m_ready.push_back(request);
            Pump();
        });
}

void ConsumeLink::OnRestoreReply(const Request& request, const RpcReply& reply, Outcome outcome)
{
    if (!reply.ok && reply.code == 0)
    {
        // Lost with its connection: the next one starts over.
        return;
    }
    ++m_restoreReplies;
    if (outcome == Outcome::ok)
    {
        if (!m_lacking.empty())
        {
            m_lacking.erase(request->ToString());
        }
        m_restoration.Finished();
        if (const auto done = std::exchange(request->done, nullptr))
        {
            done({Answer::ok, 0, {}}, {});
        }
        Pump();
        return;
    }
    const bool refused = outcome == Outcome::refused;
    const bool base = request->kind == Kind::declareExchange || m_restoration.IsOwnQueue(request->queue.name);
    m_lacking.insert(request->ToString());
    m_listener.OnRestoreFailed(
        request->ToString(), {refused ? Answer::refused : Answer::unanswered, reply.code, reply.text});
    if (refused && !base)
    {
        m_restoration.Finished();
        Pump();
        return;
    }
    m_restoration.Delayed(*request);
    After(
        Doubled(RESTORE_RETRY, request->failures++, RESTORE_RETRY_CAP),
        [this, request]
        {
            m_restoration.Resume(request);
            Pump();
        });
}

/** Runs the task later unless the connection has ended by then. */
void ConsumeLink::After(Milliseconds delay, std::function<void()> task)
{
    auto timer = std::make_shared<boost::asio::steady_timer>(m_io, delay);
    timer->async_wait(
        [this, timer, task = std::move(task), number = m_connectionNumber](const error_code& error)
        {
            if (!error && number == m_connectionNumber)
            {
                task();
            }
        });
}

/** Runs the task when nothing on the line can delay an answer any more that the broker has given by now. */
void ConsumeLink::AfterEcho(std::function<void()> task)
{
    const auto heard = std::make_shared<bool>(false);
    m_echo->Ask(
        [this, heard, task = std::move(task)]
        {
            *heard = true;
            After(OWED, task);
        });
    WatchEcho(heard);
}

/** An echo may be late behind a backlog; it may not be late when nothing comes. */
void ConsumeLink::WatchEcho(const std::shared_ptr<bool>& heard)
{
    const Milliseconds patience = m_source.Settings().queuePatience;
    After(
        patience,
        [this, heard, patience]
        {
            if (*heard)
            {
                return;
            }
            if (m_paused || std::chrono::steady_clock::now() - m_connection->LastFrame() < patience)
            {
                WatchEcho(heard);
                return;
            }
            const auto connection = m_connection;
            connection->Abort("the broker answers nothing");
        });
}

void ConsumeLink::OnConsumerLost(const std::string& queue, bool deleted, const std::string& why)
{
    m_source.Warnings().Write(
        "The broker ended our consumer of queue " + queue + ": " + (deleted ? "the queue is gone" : why));
    if (m_consumed.count(queue) > 0)
    {
        m_restored = Restored::no;
        m_recovering.insert(queue);
        m_state.Update([](LinkStatus& status) { status.restored = false; });
        Recovery& recovery = m_recoveries[queue];
        recovery.backOff.Lasted(std::chrono::steady_clock::now() - recovery.at);
        After(recovery.backOff.Next(), [this, queue, deleted] { ConsumeAgain(queue, deleted); });
    }
    m_listener.OnConsumerCancelled(queue);
}

void ConsumeLink::ConsumeAgain(const std::string& queue, bool rebind)
{
    m_recovering.erase(queue);
    m_recoveries[queue].at = std::chrono::steady_clock::now();
    const auto found = m_consumed.find(queue);
    if (found != m_consumed.end())
    {
        const Request request = ToRestore(found->second);
        if (rebind)
        {
            request->done = [this, queue](const RequestResult&, const QueueCounts&)
            { m_restoration.AddBindings(m_listener.OnConnected(), queue); };
        }
        m_restoration.Add(request);
    }
    Pump();
}

} // namespace VtxQel

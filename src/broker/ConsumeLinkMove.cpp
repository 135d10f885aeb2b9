// How ConsumeLink goes over to another front end, and back when that one is lost at once.

#include "broker/ConsumeLink.h"
#include "common/SFormat.h"
#include "logging/Log.h"

#include <utility>

namespace VtxQel
{

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::milliseconds;

namespace
{

/** For requests that nobody waits for. */
constexpr std::chrono::seconds UNBIND_PATIENCE{30};

} // namespace

void ConsumeLink::BeginMove()
{
    m_move = Move::preparing;
    m_unboundWhileMoving.clear();
}

/**
 * The new consumers start only when the old ones are cancelled: a queue would mix its messages up between two, and
 * RabbitMQ 3.10's classic queues crash when the active one of several single active consumers is cancelled while
 * messages wait.
 */
void ConsumeLink::Quiesce(std::function<void()> quiet)
{
    m_move = Move::quiescing;
    m_quiet = std::move(quiet);
    m_quiescedAt = Clock::now();
    m_connection->PauseReading(false);
    FlushSettlements();
    // They may be answered when nobody waits for them any more.
    m_consumers->CancelAll(
        [this, number = m_connectionNumber]
        {
            if (number == m_connectionNumber)
            {
                Quiet();
            }
        });
}

void ConsumeLink::Quiet()
{
    if (const auto quiet = std::exchange(m_quiet, nullptr))
    {
        quiet();
    }
}

/** A queue was declared just before quiescing: it is consumed afterwards. */
void ConsumeLink::PutOff(const Request& request)
{
    if (request->restoring)
    {
        m_consumed[request->queue.name] = request->queue;
        m_restoration.Finished();
    }
    else
    {
        m_ready.push_back(request);
    }
}

void ConsumeLink::CancelMove()
{
    const bool quiesced = std::exchange(m_move, Move::none) == Move::quiescing;
    m_quiet = nullptr;
    m_unboundWhileMoving.clear();
    if (!quiesced)
    {
        return;
    }
    if (!m_rpc)
    {
        ConnectElsewhere();
        return;
    }
    m_connection->PauseReading(m_paused);
    m_restored = Restored::no;
    for (const auto& [name, queue] : m_consumed)
    {
        m_restoration.Add(ToRestore(queue));
    }
    Pump();
}

void ConsumeLink::SwitchTo(std::size_t urlIndex, MoveTrial::Result& made)
{
    m_move = Move::none;
    m_quiet = nullptr;
    if (m_connection)
    {
        Leave();
    }
    ForgetRestoration();
    m_urlIndex = urlIndex;
    m_connection = std::move(made.consuming);
    m_connection->SetHandler(this);
    m_rpc = std::move(made.rpc);
    m_openedAt = Clock::now();
    m_state.Update(
        [&](LinkStatus& status)
        {
            status.connected = true;
            status.restored = false;
            status.connectedAt = m_openedAt;
            status.url = m_source.Url(m_urlIndex).Printable();
            status.urlIndex = m_urlIndex;
            status.lastError.clear();
        });
    MakeConsumers();
    UnbindAgain();
    m_listener.OnMoved();
    DesiredTopology desired = m_listener.OnConnected();
    std::erase_if(desired.bindings, [&](const Binding& binding) { return made.lacking.count(binding) == 0; });
    Restore(std::move(desired));
}

/** The present connection is left to itself; what was asked of it is asked again of the next one. */
void ConsumeLink::Leave()
{
    const std::string why = "moved to another front end";
    m_rpc->Forget(why);
    m_echo->Forget();
    m_consumers->ForgetStarts(why);
    ConsumingSession session{
        m_urlIndex, std::move(m_connection), std::move(m_rpc), std::move(m_echo), std::move(m_consumers)};
    m_leaving = std::make_shared<LeavingConnection>(
        m_io, std::move(session), [this](std::size_t unsettled) { OnLeft(unsettled); });
    m_leaving->Start(m_source.Settings().drainPatience);
}

void ConsumeLink::OnLeft(std::size_t unsettled)
{
    const std::string url = m_source.Url(m_leaving->UrlIndex()).Printable();
    m_leaving.reset();
    m_moveEvents.left();
    if (m_stopping)
    {
        return;
    }
    if (unsettled == 0)
    {
        QEL_LOG(vtx::LevelStatus, "Left the broker %s: nothing that came from it is unsettled", url.c_str());
    }
    else
    {
        QEL_LOG(
            vtx::LevelWarning, "Left the broker %s: it has %zu deliveries back that were not settled", url.c_str(),
            unsettled);
    }
    m_listener.OnLeft(unsettled);
}

/** The other front end may have got these bindings before they were removed. */
void ConsumeLink::UnbindAgain()
{
    for (const Binding& binding : std::exchange(m_unboundWhileMoving, {}))
    {
        auto request = std::make_shared<TopologyRequest>();
        request->kind = TopologyRequest::Kind::unbind;
        request->binding = binding;
        request->deadline = Clock::now() + UNBIND_PATIENCE;
        request->done = [](const RequestResult&, const QueueCounts&) {};
        m_requests.insert(request);
        m_ready.push_front(std::move(request));
    }
}

/**
 * The connection is lost: takes the one back that was left for it and still lives, or tells a move that is under way.
 * @return whether there is a connection, or will be without anything else being done
 */
bool ConsumeLink::ReturnOrGoOn()
{
    if (m_move == Move::quiescing)
    {
        Quiet();
        return true;
    }
    if (std::exchange(m_move, Move::none) == Move::preparing)
    {
        m_moveEvents.lost();
    }
    if (!m_leaving || !m_leaving->IsOpen())
    {
        return false;
    }
    ConsumingSession session = m_leaving->TakeBack();
    m_leaving.reset();
    m_urlIndex = session.urlIndex;
    m_connection = std::move(session.connection);
    m_connection->SetHandler(this);
    m_rpc = std::move(session.rpc);
    m_echo = std::move(session.echo);
    m_consumers = std::move(session.consumers);
    m_openedAt = Clock::now();
    m_state.Update(
        [&](LinkStatus& status)
        {
            status.connected = true;
            status.connectedAt = m_openedAt;
            status.url = m_source.Url(m_urlIndex).Printable();
            status.urlIndex = m_urlIndex;
        });
    QEL_LOG(
        vtx::LevelWarning, "Back to the broker %s, which was just left", m_source.Url(m_urlIndex).Printable().c_str());
    Restore(m_listener.OnConnected());
    m_moveEvents.returned();
    return true;
}

/** For how long nothing was consumed because of a move, as words for the log; told once. */
std::string ConsumeLink::PauseText()
{
    if (!m_quiescedAt)
    {
        return {};
    }
    const auto pause = std::chrono::duration_cast<Milliseconds>(Clock::now() - *std::exchange(m_quiescedAt, {}));
    return SFormat("; nothing was consumed for %lld ms", static_cast<long long>(pause.count()));
}

} // namespace VtxQel

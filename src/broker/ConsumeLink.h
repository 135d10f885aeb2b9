#pragma once

#include "broker/AmqpConnection.h"
#include "broker/BackOff.h"
#include "broker/BrokerLink.h"
#include "broker/ConnectionSource.h"
#include "broker/Consumers.h"
#include "broker/Echo.h"
#include "broker/LeavingConnection.h"
#include "broker/LinkState.h"
#include "broker/MoveTrial.h"
#include "broker/Restoration.h"
#include "broker/RpcChannel.h"
#include "broker/SilentQueues.h"
#include "broker/TopologyRequest.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

namespace VtxQel
{

/**
 * ConsumeLink keeps the consuming connection: it connects again whenever it is lost, restores the desired topology, and
 * carries out requests, across connections if need be. In a move it goes over to a connection that somebody else has
 * prepared, and lets the one before settle what it had delivered. Lives on the I/O thread.
 */
class ConsumeLink : private AmqpConnectionHandler
{
  public:
    using Request = std::shared_ptr<TopologyRequest>;

    ConsumeLink(boost::asio::io_context& io, ConnectionSource& source, LinkListener& listener, LinkState& state);

    /** Called to settle what came in from other threads, before anything that must come after it. */
    void SetCollector(std::function<void()> collect) { m_collect = std::move(collect); }
    /** @param onOpen told whenever a connection is open */
    void SetOnOpen(std::function<void()> onOpen) { m_onOpen = std::move(onOpen); }

    void Start();
    /** Carries the request out or answers it when its deadline has passed. */
    void Submit(Request request);
    void Settle(const DeliveryTag& tag, SettleAs as);
    void FlushSettlements();
    /** Whether the broker sends no more until settlements are flushed. */
    bool IsStarving() const;
    void StopConsuming();
    void PauseReading(bool paused);
    /** Leaves the connection, if any, and connects to the URL of this index. */
    void GoTo(std::size_t urlIndex);
    std::size_t UrlIndex() const { return m_urlIndex; }

    /** What a move that is under way has to be told. */
    struct MoveEvents
    {
        /** The connection is lost and will be made again: the move is off. */
        std::function<void()> lost;
        /** The connection that a move had made is lost, and the one that it had left is in use again. */
        std::function<void()> returned;
        /** The connection that a move had left is closed. */
        std::function<void()> left;
    };
    void SetMoveEvents(MoveEvents events) { m_moveEvents = std::move(events); }
    /** Whether the own queues are consumed or about to be, so that something would be lost by going away at once. */
    bool IsServing() const { return m_rpc && m_restoration.IsBaseReady(); }
    /** What the broker refuses or cannot provide for the time being: TopologyRequest::ToString(). */
    const std::set<std::string>& Lacking() const { return m_lacking; }
    /** Moving begins: another connection is being prepared. */
    void BeginMove();
    /** Stops consuming and holds requests back. @param quiet told when nothing comes any more */
    void Quiesce(std::function<void()> quiet);
    /** The move is off: goes on as before. */
    void CancelMove();
    /** Goes over to a connection where everything but the consumers is in place; the present one is drained. */
    void SwitchTo(std::size_t urlIndex, MoveTrial::Result& made);
    /** The connection that the last move has left, until it is drained. */
    const LeavingConnection* Leaving() const { return m_leaving.get(); }

    /** Makes no more connections, answers every request, and closes the connection in order. */
    void Stop(std::function<void()> stopped);
    /** Leaves the connection in order, because of what is said, and makes a new one as after any other end. */
    void Reconnect(const std::string& why);
    /** Ends the connection at once. */
    void Abort();

  private:
    void OnOpen() override;
    void OnMethod(std::uint16_t channel, const amqp_method_t& method) override;
    void OnContent(std::uint16_t channel, AmqpContent&& content) override;
    void OnBlocked(bool blocked, const std::string& reason) override;
    void OnReadEnd() override;
    void OnWritten() override {}
    void OnClosed(const std::string& why) override;

    void Connect();
    void ConnectLater();
    void ConnectElsewhere();
    void MakeConsumers();
    void Restore(DesiredTopology desired);
    void ForgetRestoration();
    bool ReturnOrGoOn();
    void Leave();
    void OnLeft(std::size_t unsettled);
    void Quiet();
    void PutOff(const Request& request);
    void UnbindAgain();
    std::string PauseText();
    void WatchRestoration();
    void WatchBase(int silentLooks);
    void GiveUp();

    void Pump();
    void Execute(const Request& request);
    void DeclareQueue(const Request& request);
    void Consume(const Request& request);
    void WatchConsumer(const std::string& queue, std::uint64_t generation);
    void LeaveSilent(const std::string& queue, std::uint64_t generation);
    void HoldBack(const Request& request);
    void TakeUp(const std::string& queue);
    void GiveUpWaiting(const std::string& queue);
    void StopQueue(const Request& request);
    void DeclareBaseAgain();
    void OnReply(const Request& request, const RpcReply& reply);
    void OnRestoreReply(const Request& request, const RpcReply& reply, Outcome outcome);
    void Retry(const Request& request, const RpcReply& reply);
    void Complete(const Request& request, const RequestResult& result, const QueueCounts& counts = {});
    void After(std::chrono::milliseconds delay, std::function<void()> task);
    void AfterEcho(std::function<void()> task);
    void WatchEcho(const std::shared_ptr<bool>& heard);
    void OnConsumerLost(const std::string& queue, bool deleted, const std::string& why);
    void ConsumeAgain(const std::string& queue, bool rebind);
    bool IsWanted(const TopologyRequest& request) const;
    bool IsStillInUse(TopologyRequest& request) const;
    void CheckRestored();
    void CloseDrainedLater();

    static constexpr unsigned MOST_RENEWALS = 2;

    boost::asio::io_context& m_io;
    ConnectionSource& m_source;
    LinkListener& m_listener;
    LinkState& m_state;
    std::function<void()> m_collect;
    std::function<void()> m_onOpen = [] {};

    std::shared_ptr<AmqpConnection> m_connection;
    std::unique_ptr<RpcChannel> m_rpc;
    std::unique_ptr<Consumers> m_consumers;
    std::unique_ptr<Echo> m_echo;
    /** Tells a task that was meant for an earlier connection. */
    std::uint64_t m_connectionNumber = 0;
    std::uint64_t m_generation = 0;

    BackOff m_backOff;
    boost::asio::steady_timer m_connectTimer;
    boost::asio::steady_timer m_firstDeadline;
    std::chrono::steady_clock::time_point m_openedAt;
    std::string m_lastError;
    EndCause m_endCause = EndCause::network;
    std::size_t m_urlIndex = 0;
    /** The next connection goes to m_urlIndex at once. */
    bool m_moving = false;
    bool m_everOpen = false;
    bool m_gaveUp = false;
    bool m_stopping = false;
    bool m_consuming = true;
    bool m_paused = false;
    std::function<void()> m_stopped;

    enum class Move
    {
        none,
        preparing,
        quiescing
    };
    Move m_move = Move::none;
    MoveEvents m_moveEvents;
    std::function<void()> m_quiet;
    /** Since when nothing is consumed because of a move. */
    std::optional<std::chrono::steady_clock::time_point> m_quiescedAt;
    /** What the other front end may have been given already. */
    std::set<Binding> m_unboundWhileMoving;
    std::shared_ptr<LeavingConnection> m_leaving;

    DesiredTopology m_base;
    Restoration m_restoration;
    /** What the listener was told. */
    enum class Restored
    {
        no,
        /** All but applications' queues that the broker cannot provide for the time being. */
        mostly,
        wholly
    };
    Restored m_restored = Restored::no;
    /**
     * Connections left early since the base was ready. Before it was, in this process, none may be: a broker that has
     * to make the queues of many agents at once takes long, and consuming one that it has half made kills the
     * connection.
     */
    unsigned m_renewals = MOST_RENEWALS;
    /** Answers to what was being restored, so that silence can be told from slowness. */
    std::uint64_t m_restoreReplies = 0;
    bool m_pumping = false;
    /** The queues that are to be consumed, by name. */
    std::map<std::string, QueueSpec> m_consumed;
    /** A queue whose consumer was lost, and when it was last consumed again. */
    struct Recovery
    {
        BackOff backOff;
        std::chrono::steady_clock::time_point at;
    };
    std::map<std::string, Recovery> m_recoveries;
    /** Queues whose consumer was lost and is not being made again yet. */
    std::set<std::string> m_recovering;
    bool m_closingDrained = false;
    /** What could not be restored on this connection. */
    std::set<std::string> m_lacking;
    SilentQueues m_silent;
    /** What waits for the broker to answer for a silent queue. */
    std::multimap<std::string, Request> m_heldBack;
    /** Every request that is not answered yet. */
    std::set<Request> m_requests;
    /** Those that can be carried out as soon as the connection is ready for them. */
    std::deque<Request> m_ready;
};

} // namespace VtxQel

#pragma once

#include "broker/AmqpConnection.h"
#include "broker/BackOff.h"
#include "broker/ConnectionSource.h"
#include "broker/LinkState.h"
#include "common/Footprint.h"
#include "common/Publisher.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace VtxQel
{

/** A message on its way to the broker's confirm. */
struct Publication
{
    OutgoingMessage message;
    /** Called once; afterwards empty, which also says that the publication is over. */
    PublishCompletion done;
    std::chrono::steady_clock::time_point deadline;
    /** It was given to a connection at some time. */
    bool sent = false;
    /** The broker returned it: no queue takes it. */
    bool returned = false;
    /**
     * It may be the one that the broker refused, or the one that it returned: sent again with nothing else on its way,
     * so that the broker's answer is about it.
     */
    bool suspect = false;
    /** The broker could not take it at some time. */
    bool nacked = false;
    /** When that was so for the first time on this channel. */
    std::optional<std::chrono::steady_clock::time_point> nackedAt;
};

/**
 * PublishLink publishes with confirms over a connection of its own, opened at the first message and made again when it
 * is lost.
 *
 * Every publication ends once: confirmed, returned, refused, or at its deadline. What was sent and not confirmed is
 * sent again on the next connection (the broker may see it twice). The broker closes the channel at a message that it
 * refuses without saying at which; those in question are then sent one by one. What it cannot take now (nack) is sent
 * again, and when that does not help, on a new channel. Lives on the I/O thread.
 */
class PublishLink : private AmqpConnectionHandler
{
  public:
    /** Told for every publication that ended, with the size that it was counted with. */
    using OnEnded = std::function<void(std::size_t bytes)>;

    PublishLink(boost::asio::io_context& io, ConnectionSource& source, LinkState& state, OnEnded onEnded);

    /** @param onBlocked told when the broker stops taking messages and when that is over. */
    void SetOnBlocked(std::function<void(bool blocked)> onBlocked) { m_onBlocked = std::move(onBlocked); }
    /** @param preferredUrl where to connect first, asked for whenever a connection is made. */
    void SetPreferredUrl(std::function<std::size_t()> preferredUrl) { m_preferredUrl = std::move(preferredUrl); }
    void Publish(OutgoingMessage message, PublishCompletion done, std::chrono::steady_clock::time_point deadline);
    bool IsIdle() const { return m_waiting.empty() && m_nacked.empty() && m_unconfirmed == 0; }
    /** Connects now when it waits to try again: the broker is there. */
    void Hurry();
    /** Whether there is a connection or was one. */
    bool IsInUse() const { return m_openedAt != std::chrono::steady_clock::time_point{}; }
    /** Leaves the current broker in order; the next connection goes to the preferred URL. */
    void Move();
    /** Sends nothing more. @param quiet told when nothing is on its way any more */
    void Quiesce(std::function<void()> quiet);
    /** Goes on sending. */
    void GoOn();
    /**
     * Goes on with this connection, which is open, or with one of its own when it is none. What the present one has not
     * confirmed is sent again.
     */
    void SwitchTo(std::size_t urlIndex, std::shared_ptr<AmqpConnection> connection);
    /** Calls back when nothing waits to be confirmed any more. */
    void WhenIdle(std::function<void()> idle);
    /** Ends everything that waits as timed out, makes no more connections, closes in order. */
    void Stop(std::function<void()> stopped);
    /** Ends the connection at once. */
    void Abort();

    /** The size that a message counts with against the limit. */
    static std::size_t SizeOf(const OutgoingMessage& message)
    {
        return message.body.size() + FootprintOf(message.properties) + 512;
    }

  private:
    using PublicationPtr = std::unique_ptr<Publication>;

    void OnOpen() override;
    void OnMethod(std::uint16_t channel, const amqp_method_t& method) override;
    void OnContent(std::uint16_t channel, AmqpContent&& content) override;
    void OnBlocked(bool blocked, const std::string& reason) override;
    void OnReadEnd() override;
    void OnWritten() override;
    void OnClosed(const std::string& why) override;

    void Connect();
    std::size_t NextUrl() const;
    void ConnectLater();
    void OpenChannel();
    void Pump();
    bool Send(PublicationPtr& publication);
    void OnConfirm(std::uint64_t tag, bool multiple, bool ack);
    void Confirm(PublicationPtr publication, bool ack);
    void OnChannelClose(const amqp_channel_close_t& close);
    /** Everything on its way goes back to the front of what waits, in its order. */
    void TakeBack(bool suspect);
    void End(Publication& publication, PublishResult result, const std::string& why);
    void NoteBlocked(bool blocked);
    void StartTick();
    void OnTick();
    void EndLate(std::chrono::steady_clock::time_point now);
    void SendNackedAgain();
    void WatchNacks(std::chrono::steady_clock::time_point now);
    void WatchFirstAnswer(std::chrono::steady_clock::time_point now);
    void Reopen();
    void Renew();
    template <typename Visit>
    void ForEach(Visit visit);
    void CheckIdle();
    void CheckQuiet();
    void ForgetChannel();

    ConnectionSource& m_source;
    LinkState& m_state;
    OnEnded m_onEnded;
    std::function<void(bool blocked)> m_onBlocked = [](bool) {};
    std::function<std::size_t()> m_preferredUrl;

    std::shared_ptr<AmqpConnection> m_connection;
    BackOff m_backOff;
    boost::asio::steady_timer m_connectTimer;
    std::chrono::steady_clock::time_point m_openedAt;
    std::size_t m_urlIndex = 0;
    /** How many connects have failed since the last success. */
    std::size_t m_failures = 0;
    std::string m_lastError;
    bool m_moving = false;
    bool m_quiescing = false;
    std::function<void()> m_quiet;
    bool m_stopping = false;
    std::function<void()> m_stopped;
    std::function<void()> m_idle;

    /** The channel can be published on. */
    bool m_ready = false;
    bool m_blocked = false;
    bool m_reopening = false;
    std::deque<PublicationPtr> m_waiting;
    /** What the broker could not take; sent again at the next tick. */
    std::deque<PublicationPtr> m_nacked;
    /** What is on its way, by its number on the channel from m_firstTag on; those that ended leave a gap. */
    std::deque<PublicationPtr> m_sent;
    std::uint64_t m_firstTag = 1;
    std::size_t m_unconfirmed = 0;
    bool m_suspectOnItsWay = false;
    /** How long something may be nacked again and again before the channel is opened anew. */
    std::chrono::milliseconds m_nackPatience;
    /**
     * Set while nothing is sent, so that the channel can be opened anew with nothing on its way: since when the broker
     * has not answered.
     */
    std::optional<std::chrono::steady_clock::time_point> m_drainingSince;
    /** Since when a channel has something to answer that has not answered anything yet. */
    std::optional<std::chrono::steady_clock::time_point> m_unansweredSince;
    bool m_answered = false;
    /** Connections left for want of a first answer, since the last confirm. */
    unsigned m_renewals = 0;
    boost::asio::steady_timer m_tick;
    bool m_ticking = false;
};

} // namespace VtxQel

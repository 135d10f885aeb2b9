#include "broker/PublishLink.h"

#include "common/QelException.h"
#include "logging/Log.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace VtxQel
{

using boost::system::error_code;
using Clock = std::chrono::steady_clock;

namespace
{

constexpr std::uint16_t CHANNEL = 1;
constexpr std::size_t BACKLOG = 1048576;
constexpr std::chrono::milliseconds TICK{100};
/** How long a channel may nack the same message: at first, and at most when new channels do not help. */
constexpr std::chrono::milliseconds NACKS{1000};
constexpr std::chrono::milliseconds NACKS_CAP{30000};
/** How long a channel that is to be closed may answer nothing of what is on its way. */
constexpr std::chrono::milliseconds DRAIN{500};
constexpr std::chrono::milliseconds FIRST_ANSWER{2500};
constexpr unsigned MOST_RENEWALS = 2;

} // namespace

PublishLink::PublishLink(boost::asio::io_context& io, ConnectionSource& source, LinkState& state, OnEnded onEnded)
    : m_source(source), m_state(state), m_onEnded(std::move(onEnded)), m_backOff(source.UrlCount()), m_connectTimer(io),
      m_nackPatience(NACKS), m_tick(io)
{
}

void PublishLink::Publish(OutgoingMessage message, PublishCompletion done, Clock::time_point deadline)
{
    auto publication = std::make_unique<Publication>();
    publication->message = std::move(message);
    publication->done = std::move(done);
    publication->deadline = deadline;
    const OutgoingMessage& published = publication->message;
    if (m_stopping)
    {
        End(*publication, PublishResult::timedOut, "the connection to the broker is being closed");
    }
    else if (published.exchange.size() > 255 || published.routingKey.size() > 255)
    {
        End(*publication, PublishResult::refused, "exchange or routing key longer than 255 bytes");
    }
    else if (published.body.size() > m_source.Settings().maxBodyBytes)
    {
        End(*publication, PublishResult::refused,
            "body of " + std::to_string(published.body.size()) + " bytes is over the limit");
    }
    else
    {
        m_waiting.push_back(std::move(publication));
        StartTick();
        if (!m_connection && m_failures == 0 && !IsInUse())
        {
            m_openedAt = Clock::now();
            Connect();
        }
        Pump();
    }
}

/** Visits every publication that is not over. */
template <typename Visit>
void PublishLink::ForEach(Visit visit)
{
    for (auto* list : {&m_nacked, &m_waiting, &m_sent})
    {
        for (const PublicationPtr& publication : *list)
        {
            if (publication && publication->done)
            {
                visit(*publication);
            }
        }
    }
}

void PublishLink::End(Publication& publication, PublishResult result, const std::string& why)
{
    if (const PublishCompletion done = std::exchange(publication.done, nullptr))
    {
        m_onEnded(SizeOf(publication.message));
        done(result, why);
    }
}

void PublishLink::Connect()
{
    // A timer that was cancelled when it had expired comes all the same.
    if (m_stopping || m_connection)
    {
        return;
    }
    m_urlIndex = NextUrl();
    try
    {
        m_connection = m_source.Make(m_urlIndex, ConnectionUse::publishing, *this);
        m_connection->Open();
    }
    catch (const RmqException& e)
    {
        OnClosed(e.what());
    }
}

/** Where the consuming connection is (or tries to be next), but not twice in a row where it has just failed. */
std::size_t PublishLink::NextUrl() const
{
    const std::size_t preferred = m_preferredUrl();
    return m_failures > 0 && preferred == m_urlIndex ? (preferred + 1) % m_source.UrlCount() : preferred;
}

void PublishLink::ConnectLater()
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

void PublishLink::Hurry()
{
    if (m_connectTimer.cancel() > 0)
    {
        Connect();
    }
}

void PublishLink::OnOpen()
{
    m_failures = 0;
    m_openedAt = Clock::now();
    QEL_LOG(
        vtx::LevelStatus, "Connected to the broker %s for publishing", m_source.Url(m_urlIndex).Printable().c_str());
    OpenChannel();
}

void PublishLink::OpenChannel()
{
    m_ready = false;
    m_drainingSince.reset();
    m_unansweredSince.reset();
    m_answered = false;
    ForEach([](Publication& publication) { publication.nackedAt.reset(); });
    m_connection->Send(CHANNEL, AMQP_CHANNEL_OPEN_METHOD, amqp_channel_open_t{amqp_empty_bytes});
    m_connection->Send(CHANNEL, AMQP_CONFIRM_SELECT_METHOD, amqp_confirm_select_t{0});
}

void PublishLink::OnMethod(std::uint16_t channel, const amqp_method_t& method)
{
    if (channel != CHANNEL)
    {
        throw RmqConnectionException("received a frame on channel " + std::to_string(channel) + ", which is not open");
    }
    switch (method.id)
    {
    case AMQP_CHANNEL_OPEN_OK_METHOD:
        break;
    case AMQP_CONFIRM_SELECT_OK_METHOD:
        m_ready = true;
        m_firstTag = 1;
        Pump();
        break;
    case AMQP_BASIC_ACK_METHOD:
    {
        const auto& ack = *static_cast<const amqp_basic_ack_t*>(method.decoded);
        OnConfirm(ack.delivery_tag, ack.multiple != 0, true);
        break;
    }
    case AMQP_BASIC_NACK_METHOD:
    {
        const auto& nack = *static_cast<const amqp_basic_nack_t*>(method.decoded);
        OnConfirm(nack.delivery_tag, nack.multiple != 0, false);
        break;
    }
    case AMQP_CHANNEL_CLOSE_METHOD:
        OnChannelClose(*static_cast<const amqp_channel_close_t*>(method.decoded));
        break;
    case AMQP_CHANNEL_CLOSE_OK_METHOD:
        m_reopening = false;
        TakeBack(false);
        OpenChannel();
        break;
    default:
        throw RmqConnectionException(
            std::string("received ") + amqp_method_name(method.id) + " on the publishing channel");
    }
}

void PublishLink::Pump()
{
    while (m_ready && !m_quiescing && !m_drainingSince && !m_blocked && !m_waiting.empty() && m_connection &&
           m_connection->Backlog() < BACKLOG)
    {
        const bool suspect = m_waiting.front()->suspect;
        if (m_suspectOnItsWay || (suspect && m_unconfirmed > 0))
        {
            return;
        }
        PublicationPtr publication = std::move(m_waiting.front());
        m_waiting.pop_front();
        if (publication->done && Send(publication))
        {
            m_suspectOnItsWay = suspect;
            ++m_unconfirmed;
            if (!m_answered)
            {
                m_unansweredSince = m_unansweredSince.value_or(Clock::now());
            }
            m_sent.push_back(std::move(publication));
        }
    }
}

bool PublishLink::Send(PublicationPtr& publication)
{
    const OutgoingMessage& message = publication->message;
    try
    {
        AmqpPool pool;
        amqp_basic_publish_t publish{};
        publish.exchange = ToAmqp(message.exchange);
        publish.routing_key = ToAmqp(message.routingKey);
        publish.mandatory = message.mandatory ? 1 : 0;
        amqp_basic_properties_t properties = ToAmqp(message.properties, pool);
        m_connection->SendPublish(CHANNEL, publish, properties, message.body);
        publication->sent = true;
        return true;
    }
    catch (const RmqMessageException& e)
    {
        End(*publication, PublishResult::refused, e.what());
        return false;
    }
}

void PublishLink::OnConfirm(std::uint64_t tag, bool multiple, bool ack)
{
    if (!m_ready && !m_reopening)
    {
        // Of the channel that the broker has closed: it was under way already.
        return;
    }
    if (tag >= m_firstTag + m_sent.size())
    {
        throw RmqConnectionException("received a confirm of something that was not published");
    }
    m_answered = true;
    m_unansweredSince.reset();
    m_renewals = ack ? 0 : m_renewals;
    if (m_drainingSince)
    {
        m_drainingSince = Clock::now();
    }
    for (std::uint64_t each = multiple ? m_firstTag : tag; each <= tag; ++each)
    {
        if (each >= m_firstTag)
        {
            if (PublicationPtr publication = std::move(m_sent[static_cast<std::size_t>(each - m_firstTag)]))
            {
                --m_unconfirmed;
                Confirm(std::move(publication), ack);
            }
        }
    }
    while (!m_sent.empty() && !m_sent.front())
    {
        m_sent.pop_front();
        ++m_firstTag;
    }
    if (m_unconfirmed == 0)
    {
        m_suspectOnItsWay = false;
    }
}

void PublishLink::Confirm(PublicationPtr publication, bool ack)
{
    if (!publication->done)
    {
        return;
    }
    if (!ack)
    {
        // The broker could not take it now; the next tick sends it again.
        publication->returned = false;
        publication->nacked = true;
        publication->nackedAt = publication->nackedAt.value_or(Clock::now());
        m_nacked.push_back(std::move(publication));
    }
    else if (publication->returned && publication->suspect)
    {
        End(*publication, PublishResult::noRoute, "no queue takes the message");
    }
    else if (publication->returned)
    {
        publication->returned = false;
        publication->suspect = true;
        m_waiting.push_back(std::move(publication));
    }
    else
    {
        End(*publication, PublishResult::confirmed, {});
    }
}

void PublishLink::OnContent(std::uint16_t, AmqpContent&& content)
{
    // A return does not say which publication it is about. When there is but one candidate it is that one; otherwise
    // all of them are sent again one by one.
    std::vector<Publication*> candidates;
    for (const PublicationPtr& sent : m_sent)
    {
        if (sent && sent->message.mandatory && sent->message.routingKey == content.routingKey &&
            sent->message.exchange == content.exchange)
        {
            candidates.push_back(sent.get());
        }
    }
    for (Publication* candidate : candidates)
    {
        candidate->returned = true;
        candidate->suspect = candidate->suspect || candidates.size() == 1;
    }
}

void PublishLink::OnChannelClose(const amqp_channel_close_t& close)
{
    const std::string text = FromAmqp(close.reply_text);
    m_connection->Send(CHANNEL, AMQP_CHANNEL_CLOSE_OK_METHOD, amqp_channel_close_ok_t{});
    if (m_reopening)
    {
        return;
    }
    const bool refusal = close.reply_code == AMQP_ACCESS_REFUSED || close.reply_code == AMQP_NOT_FOUND ||
                         close.reply_code == AMQP_PRECONDITION_FAILED;
    if (!refusal)
    {
        // Trouble of the broker's own: after a while on a new connection, or it would be asked without a pause.
        m_connection->Abort(std::to_string(close.reply_code) + " " + text);
        return;
    }
    if (m_unconfirmed == 1)
    {
        for (const PublicationPtr& sent : m_sent)
        {
            if (sent)
            {
                End(*sent, PublishResult::refused, text);
            }
        }
    }
    TakeBack(true);
    OpenChannel();
}

void PublishLink::TakeBack(bool suspect)
{
    m_ready = false;
    m_suspectOnItsWay = false;
    m_unconfirmed = 0;
    m_firstTag = 1;
    while (!m_sent.empty())
    {
        if (m_sent.back() && m_sent.back()->done)
        {
            m_sent.back()->returned = false;
            m_sent.back()->suspect = m_sent.back()->suspect || suspect;
            m_waiting.push_front(std::move(m_sent.back()));
        }
        m_sent.pop_back();
    }
}

void PublishLink::OnBlocked(bool blocked, const std::string& reason)
{
    NoteBlocked(blocked);
    if (blocked)
    {
        QEL_LOG(vtx::LevelWarning, "The broker takes no messages: %s", reason.c_str());
    }
    else
    {
        QEL_LOG(vtx::LevelStatus, "The broker takes messages again");
        Pump();
    }
}

void PublishLink::NoteBlocked(bool blocked)
{
    if (std::exchange(m_blocked, blocked) != blocked)
    {
        m_state.Update([&](LinkStatus& status) { status.blocked = blocked; });
        m_onBlocked(blocked);
    }
}

void PublishLink::OnReadEnd()
{
    Pump();
    CheckIdle();
    CheckQuiet();
}

void PublishLink::OnWritten()
{
    Pump();
}

void PublishLink::OnClosed(const std::string& why)
{
    const auto connection = std::exchange(m_connection, nullptr);
    const bool wasOpen = connection && connection->ChannelMax() > 0;
    m_lastError = why;
    ForgetChannel();
    const std::string url = m_source.Url(m_urlIndex).Printable();
    if (m_stopping)
    {
        if (const auto stopped = std::exchange(m_stopped, nullptr))
        {
            stopped();
        }
        return;
    }
    if (std::exchange(m_moving, false))
    {
        Connect();
        return;
    }
    if (wasOpen)
    {
        m_source.Warnings().Write("Publishing connection to the broker " + url + " ended: " + why);
        m_backOff.Lasted(Clock::now() - m_openedAt);
    }
    else
    {
        m_source.Warnings().Write("Cannot connect to the broker " + url + ": " + why);
    }
    ++m_failures;
    ConnectLater();
}

/** The channel is gone with its connection: what was on its way waits for the next one. */
void PublishLink::ForgetChannel()
{
    TakeBack(false);
    m_reopening = false;
    m_drainingSince.reset();
    NoteBlocked(false);
    CheckQuiet();
}

void PublishLink::Quiesce(std::function<void()> quiet)
{
    m_quiescing = true;
    m_quiet = std::move(quiet);
    CheckQuiet();
}

void PublishLink::CheckQuiet()
{
    if (m_quiet && m_unconfirmed == 0)
    {
        std::exchange(m_quiet, nullptr)();
    }
}

void PublishLink::GoOn()
{
    m_quiescing = false;
    m_quiet = nullptr;
    Pump();
}

void PublishLink::SwitchTo(std::size_t urlIndex, std::shared_ptr<AmqpConnection> connection)
{
    m_quiescing = false;
    m_quiet = nullptr;
    m_moving = false;
    if (!connection)
    {
        Move();
        return;
    }
    m_connectTimer.cancel();
    if (m_connection)
    {
        m_connection->SetHandler(nullptr);
        m_connection->Close();
    }
    ForgetChannel();
    m_urlIndex = urlIndex;
    m_connection = std::move(connection);
    m_connection->SetHandler(this);
    OnOpen();
}

void PublishLink::Move()
{
    if (m_stopping || !IsInUse())
    {
        return;
    }
    m_failures = 0;
    m_connectTimer.cancel();
    if (const auto connection = m_connection)
    {
        m_moving = true;
        connection->Close();
    }
    else
    {
        Connect();
    }
}

void PublishLink::StartTick()
{
    if (m_ticking)
    {
        return;
    }
    m_ticking = true;
    m_tick.expires_after(TICK);
    m_tick.async_wait(
        [this](const error_code& error)
        {
            m_ticking = false;
            if (!error && !m_stopping)
            {
                OnTick();
            }
        });
}

void PublishLink::OnTick()
{
    const auto now = Clock::now();
    EndLate(now);
    SendNackedAgain();
    WatchNacks(now);
    WatchFirstAnswer(now);
    Pump();
    CheckIdle();
    if (!IsIdle())
    {
        StartTick();
    }
}

void PublishLink::EndLate(Clock::time_point now)
{
    const std::string why =
        "no confirm within the deadline" + (m_blocked             ? std::string(": the broker takes no messages")
                                            : m_connection        ? std::string()
                                            : m_lastError.empty() ? std::string(": not connected")
                                                                  : ": " + m_lastError);
    ForEach(
        [&](Publication& publication)
        {
            if (publication.deadline <= now)
            {
                End(publication, publication.sent ? PublishResult::timedOut : PublishResult::notSent, why);
            }
        });
}

void PublishLink::SendNackedAgain()
{
    while (!m_nacked.empty())
    {
        m_waiting.push_front(std::move(m_nacked.back()));
        m_nacked.pop_back();
    }
    while (!m_waiting.empty() && !m_waiting.front()->done)
    {
        m_waiting.pop_front();
    }
}

/**
 * A channel that met a quorum queue without a leader may nack everything for it even after there is one again, while
 * other queues take their messages from the same channel.
 */
void PublishLink::WatchNacks(Clock::time_point now)
{
    bool nacked = false;
    std::optional<Clock::time_point> oldest;
    ForEach(
        [&](const Publication& publication)
        {
            nacked = nacked || publication.nacked;
            if (publication.nackedAt)
            {
                oldest = std::min(oldest.value_or(now), *publication.nackedAt);
            }
        });
    if (!nacked)
    {
        m_nackPatience = NACKS;
    }
    if (oldest && m_ready && !m_drainingSince && now - *oldest >= m_nackPatience)
    {
        m_drainingSince = now;
    }
    if (m_drainingSince && m_unconfirmed == 0)
    {
        Reopen();
    }
    else if (m_drainingSince && now - *m_drainingSince >= DRAIN)
    {
        Renew();
    }
}

/**
 * A channel's first message for a quorum queue may be meant for a leader that was just lost, and all that follow wait
 * behind it for seconds. Another connection mostly knows the new one; no use where there is but one node.
 */
void PublishLink::WatchFirstAnswer(Clock::time_point now)
{
    if (m_ready && !m_blocked && m_unansweredSince && now - *m_unansweredSince >= FIRST_ANSWER &&
        m_renewals < MOST_RENEWALS && m_source.UrlCount() > 1)
    {
        ++m_renewals;
        Renew();
    }
}

void PublishLink::Reopen()
{
    QEL_LOG(vtx::LevelStatus, "The broker does not take messages for a queue; trying a new channel");
    m_nackPatience = std::min(2 * m_nackPatience, NACKS_CAP);
    m_drainingSince.reset();
    m_ready = false;
    m_reopening = true;
    m_connection->Send(
        CHANNEL, AMQP_CHANNEL_CLOSE_METHOD, amqp_channel_close_t{AMQP_REPLY_SUCCESS, ToAmqp("nacks"), 0, 0});
}

/** The channel waits for a node that is out of reach, once for each message, and would do so before it is closed. */
void PublishLink::Renew()
{
    QEL_LOG(vtx::LevelStatus, "The broker does not take messages for a queue; trying a new connection");
    m_nackPatience = std::min(2 * m_nackPatience, NACKS_CAP);
    m_moving = true;
    m_connection->Abort("the channel does not answer", EndCause::unanswered);
}

void PublishLink::CheckIdle()
{
    if (m_idle && IsIdle())
    {
        std::exchange(m_idle, nullptr)();
    }
}

void PublishLink::WhenIdle(std::function<void()> idle)
{
    m_idle = std::move(idle);
    CheckIdle();
}

void PublishLink::Stop(std::function<void()> stopped)
{
    m_stopping = true;
    m_connectTimer.cancel();
    m_tick.cancel();
    ForEach([this](Publication& publication)
            { End(publication, PublishResult::timedOut, "the connection to the broker is being closed"); });
    if (const auto connection = m_connection)
    {
        m_stopped = std::move(stopped);
        connection->Close();
    }
    else
    {
        stopped();
    }
}

void PublishLink::Abort()
{
    if (const auto connection = m_connection)
    {
        connection->Abort("closed");
    }
}

} // namespace VtxQel

#include "ConsumingLoop.h"

#include "BackOff.h"
#include "Conversion.h"

#include <algorithm>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace qel
{

namespace v1 = apps::v1;

namespace
{

/** How long the agent may take to end a stream that we have ended on our side. */
constexpr std::chrono::seconds endPatience{5};
/** What the agent takes. */
constexpr std::chrono::milliseconds longestRetryDelay{900000};
constexpr std::chrono::milliseconds longestDefaultDelay{60000};

bool IsRefusal(const grpc::Status& status)
{
    return status.error_code() == grpc::StatusCode::INVALID_ARGUMENT ||
           status.error_code() == grpc::StatusCode::UNIMPLEMENTED;
}

std::string Describe(const grpc::Status& status)
{
    return status.ok() ? "the agent has ended the stream" : status.error_message();
}

std::chrono::milliseconds DefaultDelay(std::chrono::milliseconds first, std::uint32_t tries)
{
    constexpr std::uint32_t mostDoublings = 16;
    return std::min(first * (1 << std::min(tries, mostDoublings)), longestDefaultDelay);
}

} // namespace

void ConsumingLoop::Run(v1::Applications::Stub& stub, const Handler& handler)
{
    if (m_running.exchange(true))
    {
        throw std::logic_error("the client runs already");
    }
    const std::unique_ptr<std::atomic<bool>, void (*)(std::atomic<bool>*)> running(
        &m_running, [](std::atomic<bool>* flag) { *flag = false; });
    BackOff pauses(m_options.firstPause, m_options.longestPause);
    while (!IsStopped())
    {
        const auto began = std::chrono::steady_clock::now();
        const std::string trouble = AttachOnce(stub, handler);
        if (IsStopped() || !m_options.attachAgain)
        {
            break;
        }
        // An agent that takes us and ends us at once must not be asked all the time.
        if (std::chrono::steady_clock::now() - began > m_options.longestPause)
        {
            pauses.Reset();
        }
        const BackOff::Milliseconds pause = pauses.Next();
        m_options.log(trouble + "; trying again in " + std::to_string(pause.count()) + " ms");
        Pause(pause);
    }
}

std::string ConsumingLoop::AttachOnce(v1::Applications::Stub& stub, const Handler& handler)
{
    Attachment attachment(
        [this](const v1::AttachResponse& response) { Observe(response); },
        [this](bool welcomed, const grpc::Status& status) { ObserveEnd(welcomed, status); });
    v1::Hello hello;
    hello.set_instance(m_options.instance);
    hello.set_window(m_options.window);
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        attachment.Start(stub, hello);
        m_current = &attachment;
        if (m_stopped)
        {
            attachment.Detach(m_options.stopPatience);
        }
    }
    {
        std::vector<std::jthread> workers;
        for (unsigned further = 1; further < m_options.threads; ++further)
        {
            workers.emplace_back([this, &attachment, &handler] { Work(attachment, handler); });
        }
        Work(attachment, handler);
    }
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_current = nullptr;
    }
    const grpc::Status status = attachment.Finish(endPatience);
    if (!attachment.WasWelcomed() && IsRefusal(status))
    {
        throw AttachError(status.error_message());
    }
    return (attachment.WasWelcomed() ? "detached: " : "not attached: ") + Describe(status);
}

void ConsumingLoop::Observe(const v1::AttachResponse& response) const
{
    const v1::Welcome& welcome = response.welcome();
    if (m_options.onWelcome && response.has_welcome())
    {
        m_options.onWelcome(FromProto(welcome));
    }
    if (m_options.onConfiguration && (response.has_welcome() || response.has_configuration()))
    {
        m_options.onConfiguration(
            FromProto(response.has_welcome() ? welcome.configuration() : response.configuration()));
    }
    if (m_options.onBroker && (response.has_welcome() || response.has_broker()))
    {
        m_options.onBroker(FromProto(response.has_welcome() ? welcome.broker() : response.broker()));
    }
}

void ConsumingLoop::ObserveEnd(bool welcomed, const grpc::Status& status) const
{
    if (m_options.onDetached)
    {
        m_options.onDetached({welcomed, status.error_code(), Describe(status)});
    }
}

void ConsumingLoop::Work(Attachment& attachment, const Handler& handler) const
{
    while (auto delivery = attachment.Next())
    {
        v1::Verdict answer = Decide(*delivery, handler);
        if (answer.kind() != v1::Verdict::KIND_UNSPECIFIED)
        {
            attachment.Answer(std::move(answer));
        }
    }
}

v1::Verdict ConsumingLoop::Decide(v1::Delivery& delivery, const Handler& handler) const
{
    v1::Verdict answer;
    answer.set_delivery_id(delivery.delivery_id());
    const Message message = FromProto(delivery);
    try
    {
        Translate(message, handler(message), answer);
    }
    catch (const Dead& dead)
    {
        Translate(message, Verdict::Dead(dead.what()), answer);
    }
    catch (const std::exception& error)
    {
        Translate(message, Failed(message, error.what()), answer);
    }
    catch (...)
    {
        Translate(message, Failed(message, "something that is no std::exception"), answer);
    }
    return answer;
}

Verdict ConsumingLoop::Failed(const Message& message, const std::string& what) const
{
    m_options.log(
        "try " + std::to_string(message.tries + 1) + " of a message with routing key " + message.routingKey +
        " failed: " + what);
    return Verdict::Retry();
}

void ConsumingLoop::Translate(const Message& message, const Verdict& verdict, v1::Verdict& out) const
{
    switch (verdict.GetKind())
    {
    case Verdict::Kind::done:
        out.set_kind(v1::Verdict::DONE);
        return;
    case Verdict::Kind::dead:
        out.set_kind(v1::Verdict::DEAD);
        out.set_reason(ReasonText(verdict.Reason()));
        return;
    case Verdict::Kind::none:
        return;
    case Verdict::Kind::retry:
        break;
    }
    const auto delay = verdict.Delay().value_or(DefaultDelay(m_options.retryDelay, message.tries));
    out.set_kind(v1::Verdict::RETRY);
    out.set_retry_delay_ms(
        static_cast<std::uint32_t>(std::clamp(delay, std::chrono::milliseconds(0), longestRetryDelay).count()));
}

void ConsumingLoop::Stop()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_stopped = true;
    if (m_current != nullptr)
    {
        m_current->Detach(m_options.stopPatience);
    }
    m_changed.notify_all();
}

bool ConsumingLoop::IsStopped()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_stopped;
}

void ConsumingLoop::Pause(std::chrono::milliseconds duration)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait_for(lock, duration, [this] { return m_stopped; });
}

} // namespace qel

#pragma once

#include "qel/Message.h"
#include "qel/Verdict.h"
#include "qel/Welcome.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>

namespace qel
{

/** The agent refuses the application for good: the text says what to change. */
class AttachError : public std::runtime_error
{
  public:
    using std::runtime_error::runtime_error;
};

/** A message was not published. */
class PublishError : public std::runtime_error
{
  public:
    enum class Kind
    {
        /** No queue takes the routing key. */
        noRoute,
        /** The message itself is wrong; the text says what. Do not repeat it. */
        refused,
        /** No confirm came in time. Publish it again with the same messageId: the broker may have it. */
        unconfirmed
    };

    PublishError(Kind kind, const std::string& what) : std::runtime_error(what), m_kind(kind) {}
    Kind GetKind() const { return m_kind; }

  private:
    Kind m_kind;
};

/** The management plane was not asked for a configuration. */
class ConfigurationError : public std::runtime_error
{
  public:
    enum class Kind
    {
        /** The management plane is not there. Ask later; as long as there is no configuration the agent asks, too. */
        noPlane,
        /** The operator has to mend the agent's configuration; the text says what. */
        notSetUp,
        /** Asked less than a second ago: the answer to that is on its way. */
        tooSoon,
        /** The agent or the broker was away until the deadline: the management plane may have the request or not. */
        unconfirmed
    };

    ConfigurationError(Kind kind, const std::string& what) : std::runtime_error(what), m_kind(kind) {}
    Kind GetKind() const { return m_kind; }

  private:
    Kind m_kind;
};

/** How a client behaves; every field may be left as it is. */
struct Options
{
    /** The socket file; else apps/NAME.sock below the environment's QEL_RUNTIME_DIRECTORY, else below /run/qel. */
    std::string socket;
    /** Tells instances of one application apart in the agent's log, up to 64 bytes; else host and process number. */
    std::string instance;
    /** How many messages may be without a verdict at once; 0: what the agent is configured with. */
    std::uint32_t window = 0;
    /** How many messages are worked on at once. With more than one their order is not kept. */
    unsigned threads = 1;
    /** The agent is away: we come again after a random time up to this, which doubles up to the longest. */
    std::chrono::milliseconds firstPause{100};
    std::chrono::milliseconds longestPause{5000};
    /** When a message comes again that the handler threw at; doubles with every try, up to a minute. */
    std::chrono::milliseconds retryDelay{1000};
    /** Gets a line on each change and each exception; without it they go to std::clog. From any thread, never at once.
     */
    std::function<void(const std::string& line)> log;
    /** How long Run() goes on after Stop() to finish what it was given; the rest goes to another instance. */
    std::chrono::milliseconds stopPatience{10000};
    /** Whether Run() attaches again when the agent ends the stream; else it returns. */
    bool attachAgain = true;
    /** Get what is so at each attach and each change of it. On a thread of the library: be quick, call no client. */
    std::function<void(const Configuration& configuration)> onConfiguration;
    std::function<void(BrokerState state)> onBroker;
    /** Gets what the agent says at each attach, before the two above. On such a thread, too. */
    std::function<void(const Welcome& welcome)> onWelcome;
    /** Told at each end, at once, while handlers may still work on what they have got. On such a thread, too. */
    std::function<void(const Detachment& detachment)> onDetached;
};

/**
 * Client is an application's side of its agent: it attaches, gives each message to a handler and publishes.
 *
 *     qel::Client client("web");
 *     client.Run([](const qel::Message& message) { std::cout << message.body << '\n'; });
 *
 * When the agent goes away, Run() attaches again as soon as it is back, and Publish() goes on until its deadline.
 * Every operation may be called from any thread and from the handler. The client must outlive every call of it.
 */
class Client
{
  public:
    /** Connects to nothing yet. @param application the name of the drop-in, /etc/qel/apps.d/NAME.toml. */
    explicit Client(const std::string& application, Options options = {});
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    /**
     * Gives every message to the handler, one after the other, until Stop(); in this thread and, with
     * Options::threads, in further ones.
     *
     * The handler gets a const Message& and returns a Verdict, or nothing, which means done. When it throws, the
     * message comes again later; a thrown Dead makes it a dead letter. A verdict that the agent's end cuts off is not
     * known to it: the message comes again, as redelivered.
     * @throws AttachError when the agent refuses us for good, std::logic_error when it runs already.
     */
    template <typename Handler>
    void Run(Handler handler)
    {
        if constexpr (std::is_void_v<std::invoke_result_t<Handler&, const Message&>>)
        {
            RunHandler(
                [handler = std::move(handler)](const Message& message) mutable
                {
                    handler(message);
                    return Verdict::Done();
                });
        }
        else
        {
            RunHandler(std::move(handler));
        }
    }

    /**
     * Detaches, for good: nothing more is given to us, what we have is finished within Options::stopPatience, then
     * Run() returns. Does not wait for that. Not for signal handlers: see StopOnSignals.
     */
    void Stop();

    /**
     * Publishes and waits until the broker has taken responsibility. While the agent is away or has too much waiting it
     * tries again until the deadline; a repetition has the same messageId.
     * @throws PublishError
     */
    void Publish(const Publication& publication, std::chrono::milliseconds deadline = std::chrono::seconds(30));

    /**
     * Asks the management plane for our configuration, for an application that knows that it wants another one; the
     * agent asks by itself as long as there is none. What comes of it is told to Options::onConfiguration.
     * @return what was in force when the request went out. @throws ConfigurationError
     */
    Configuration RequestConfiguration(std::chrono::milliseconds deadline = std::chrono::seconds(30));

  private:
    class Implementation;

    void RunHandler(std::function<Verdict(const Message&)> handler);

    const std::unique_ptr<Implementation> m_implementation;
};

} // namespace qel

#pragma once

#include "ChildProcess.h"
#include "DevFolder.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace VtxQel
{

/**
 * PrivateBroker is a RabbitMQ node of our own, in the packaged programs but without the service of the system: it
 * listens on the loopback interface only, has a user of its own, and its files are in the folder. It ends with this
 * object. For one thread.
 */
class PrivateBroker
{
  public:
    static constexpr const char* USER = "dev";

    /**
     * Starts it; IsUp() tells when it can be used.
     * @param programs the folder of rabbitmq-server; empty for the package's.
     * @param port to listen on; 0 for a free one.
     * @param onEnd see ChildProcess; for the node and its name server.
     * @throws Failure
     */
    PrivateBroker(
        const DevFolder& folder, const std::string& programs, std::uint16_t port, const std::function<void()>& onEnd);

    /** The AMQP URL with the user, or without, for who names it elsewhere; never with the password. */
    std::string Url() const { return "amqp://" + std::string(USER) + "@" + Address(); }
    std::string UrlWithoutUser() const { return "amqp://" + Address(); }
    /** Where the password is. */
    const std::string& PasswordFile() const { return m_passwordFile; }
    const std::string& Password() const { return m_password; }

    bool IsUp() const;
    /** What has ended that should not have; nothing when both run. */
    std::string Obituary() const;
    std::string Tail() const { return m_node->Tail(); }
    /** Whether it has ended because somebody else took one of its ports in the last moment. */
    bool HasLostAPort() const;

  private:
    std::string Address() const { return "127.0.0.1:" + std::to_string(m_port) + "/"; }

    std::uint16_t m_port;
    std::string m_passwordFile;
    std::string m_password;
    std::string m_output;
    std::optional<ChildProcess> m_nameServer;
    std::optional<ChildProcess> m_node;
};

} // namespace VtxQel

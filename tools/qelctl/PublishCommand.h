#pragma once

#include "Command.h"
#include "ManagementSession.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace VtxQel
{

/** `qelctl publish`: publishes one message, or many alike, and says what the broker has confirmed. */
class PublishCommand : public Command
{
  public:
    CLI::App* Register(CLI::App& root) override;
    void Run(const GlobalOptions& options) override;

  private:
    OutgoingMessage MakeMessage() const;
    void Report(std::uint64_t confirmed, std::size_t bodyBytes, bool json) const;
    std::string Target() const;

    std::string m_exchange;
    std::string m_routingKey;
    RmqProperties m_properties;
    std::vector<std::string> m_headers;
    std::optional<unsigned> m_priority;
    std::optional<std::uint32_t> m_expiration;
    bool m_persistent = false;
    bool m_mandatory = false;
    std::uint64_t m_count = 1;
    double m_rate = 0;
    std::optional<std::string> m_body;
    std::optional<std::string> m_bodyFile;
};

} // namespace VtxQel

#pragma once

#include "qel/Message.h"
#include "qel/Welcome.h"

#include <nlohmann/json_fwd.hpp>

#include <cstdint>
#include <mutex>
#include <optional>
#include <ostream>
#include <string>

namespace VtxQel
{

/**
 * Prints what an attached application is told: a readable line each, or one JSON object a line. Every line is flushed,
 * so that a program on the other end of a pipe sees it at once. May be used by several threads.
 */
class DeliveryPrinter
{
  public:
    /** @param out must outlive the printer. */
    DeliveryPrinter(std::ostream& out, bool json) : m_out(out), m_json(json) {}

    void PrintWelcome(const qel::Welcome& welcome);
    /** Prints nothing when it is what was printed last, in the welcome or by itself. */
    void PrintConfiguration(const qel::Configuration& configuration);
    void PrintBroker(qel::BrokerState state);
    /** @param number of the delivery among those that were printed */
    void PrintDelivery(std::uint64_t number, const qel::Message& message);
    /** The stream ended and is going to be made again. */
    void PrintDetached(const std::string& why);

  private:
    void Print(const nlohmann::ordered_json& line, const std::string& text);

    std::ostream& m_out;
    const bool m_json;

    std::mutex m_mutex;
    // Guarded by m_mutex.
    std::optional<qel::Configuration> m_configuration;
    std::optional<qel::BrokerState> m_broker;
};

} // namespace VtxQel

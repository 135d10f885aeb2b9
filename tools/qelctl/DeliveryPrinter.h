#pragma once

#include "qel/apps/v1/applications.pb.h"

#include <ostream>
#include <string>

namespace VtxQel
{

/**
 * Prints what an attached application is told: a readable line each, or one JSON object a line. Every line is flushed,
 * so that a program on the other end of a pipe sees it at once. For one thread at a time.
 */
class DeliveryPrinter
{
  public:
    /** @param out must outlive the printer. */
    DeliveryPrinter(std::ostream& out, bool json) : m_out(out), m_json(json) {}

    void PrintWelcome(const qel::apps::v1::Welcome& welcome);
    void PrintConfiguration(const qel::apps::v1::Configuration& configuration);
    void PrintDelivery(const qel::apps::v1::Delivery& delivery);
    /** The stream ended and is going to be made again. */
    void PrintDetached(const std::string& why);

  private:
    std::ostream& m_out;
    const bool m_json;
};

} // namespace VtxQel

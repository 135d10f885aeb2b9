#pragma once

#include <nlohmann/json.hpp>

#include <string>

namespace VtxQel
{

/**
 * What an agent says of itself in a ping's reply, for people: a line of version, uptime and readiness and a line for
 * each application's configuration. What is missing is left out; nothing at all is said of a body that is no report.
 */
class PingReport
{
  public:
    /** @param body the reply's body: JSON, or anything else from something that is not such an agent. */
    explicit PingReport(const std::string& body);

    /** The body as it came, null when it is no JSON object. */
    const nlohmann::ordered_json& Json() const { return m_report; }
    /** Follows "answer from AGENT in N ms" on its line, with its leading separator; or empty. */
    std::string Headline() const;
    /** The lines below it, each with its end; or empty. */
    std::string Details() const;

  private:
    nlohmann::ordered_json m_report;
};

} // namespace VtxQel

#pragma once

#include "broker/LinkHarness.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <memory>
#include <string>

namespace VtxQel
{

inline constexpr std::size_t HERE = 0;
/** A virtual host of its own: another broker, as far as queues and bindings go. */
inline constexpr std::size_t ELSEWHERE = 1;
/** The same broker once more: what another node of a cluster is. */
inline constexpr std::size_t SAME = 2;

std::string UrlElsewhere();
LinkSettings ThreeFrontEnds();
/** What `rabbitmqctl list_...` has to say of elsewhere. */
std::string ListElsewhere(const std::string& what);
/** Ends the connections to elsewhere that there are. */
void CloseElsewhere(const std::string& why);
/** Another connection to one of the front ends. */
std::unique_ptr<TestLink> Outsider(std::size_t index);

/** A link with everything that there can be, which knows three front ends. */
class LinkMove : public testing::Test
{
  protected:
    LinkMove();

    void Connect(const LinkSettings& settings = ThreeFrontEnds());
    RecordingListener& Listener() { return m_link->Listener(); }
    BrokerLink& Link() { return *m_link->operator->(); }

    /** Moves and waits until everything is consumed there. */
    void MoveTo(std::size_t index);
    /** The failure of the first move. */
    std::string WhyNot(std::size_t index);
    /** Nothing has happened to the present connection, and messages come. */
    void ExpectUndisturbed();

    const std::string m_exchange = Unique("exchange");
    const std::string m_queue = Unique("queue");
    const std::string m_application = Unique("application");
    DesiredTopology m_desired;
    std::unique_ptr<TestLink> m_link;
};

} // namespace VtxQel

#include "broker/LinkMoveScene.h"

namespace VtxQel
{

namespace
{

/** The virtual host, made once. */
const std::string& OtherVhost()
{
    static const std::string vhost = []
    {
        std::string name = Unique("vhost");
        Rabbitmqctl("add_vhost " + name);
        Rabbitmqctl("set_permissions -p " + name + " guest '.*' '.*' '.*'");
        return name;
    }();
    return vhost;
}

} // namespace

std::string UrlElsewhere()
{
    return NodeUrl("amqp", "guest:guest", OtherVhost());
}

LinkSettings ThreeFrontEnds()
{
    LinkSettings settings = NodeSettings();
    settings.urls = {NodeUrl(), UrlElsewhere(), NodeUrl()};
    return settings;
}

std::string ListElsewhere(const std::string& what)
{
    return Rabbitmqctl("list_" + what + " -p " + OtherVhost());
}

void CloseElsewhere(const std::string& why)
{
    Rabbitmqctl("close_all_connections -p " + OtherVhost() + " '" + why + "'");
}

std::unique_ptr<TestLink> Outsider(std::size_t index)
{
    LinkSettings settings = ThreeFrontEnds();
    settings.urls = {settings.urls[index]};
    return std::make_unique<TestLink>(DesiredTopology(), settings);
}

LinkMove::LinkMove()
{
    m_desired.exchanges = {{m_exchange, "topic", false}};
    m_desired.ownQueues = {Queue(m_queue, 100)};
    m_desired.ownQueues[0].arguments = {{"x-single-active-consumer", RmqValue::Boolean(true)}};
    m_desired.bindings = {{m_queue, m_exchange, "topic"}};
    m_desired.applicationQueues = {Queue(m_application, 100)};
}

void LinkMove::Connect(const LinkSettings& settings)
{
    m_link = std::make_unique<TestLink>(m_desired, settings);
}

void LinkMove::MoveTo(std::size_t index)
{
    const std::size_t restored = Listener().RestoredCount();
    Link().MoveTo(index);
    ASSERT_TRUE(Listener().WaitForRestored(restored + 1));
    ASSERT_EQ(Link().Status().urlIndex, index);
}

std::string LinkMove::WhyNot(std::size_t index)
{
    Link().MoveTo(index);
    EXPECT_TRUE(Eventually([this] { return Link().Status().failedMoves == 1; }));
    return Link().Status().lastMoveError;
}

void LinkMove::ExpectUndisturbed()
{
    EXPECT_EQ(Listener().DisconnectCount(), 0U);
    EXPECT_EQ(Listener().RestoredCount(), 1U);
    EXPECT_EQ(Link().Status().urlIndex, HERE);
    EXPECT_TRUE(Link().Status().restored);
    m_link->Send(m_queue, "still here");
    EXPECT_TRUE(Listener().WaitForDeliveries(1));
}

} // namespace VtxQel

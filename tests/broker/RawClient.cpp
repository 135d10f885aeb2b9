#include "broker/RawClient.h"

#include "broker/BrokerUrl.h"

#include <amqp_tcp_socket.h>
#include <gtest/gtest.h>

#include <vector>

namespace VtxQel
{

namespace
{

amqp_bytes_t Bytes(const std::string& text)
{
    return amqp_cstring_bytes(text.c_str());
}

} // namespace

RawClient::RawClient(const std::string& url) : m_state(amqp_new_connection())
{
    const BrokerUrl parsed = BrokerUrl::Parse(url);
    amqp_socket_t* socket = amqp_tcp_socket_new(m_state);
    EXPECT_EQ(amqp_socket_open(socket, parsed.host.c_str(), parsed.port), 0);
    const amqp_rpc_reply_t login = amqp_login(
        m_state, parsed.vhost.c_str(), 0, 131072, 0, AMQP_SASL_METHOD_PLAIN, parsed.user.c_str(),
        parsed.password.c_str());
    EXPECT_EQ(login.reply_type, AMQP_RESPONSE_NORMAL);
    EXPECT_NE(amqp_channel_open(m_state, 1), nullptr);
}

RawClient::~RawClient()
{
    amqp_connection_close(m_state, AMQP_REPLY_SUCCESS);
    amqp_destroy_connection(m_state);
}

void RawClient::ConsumeExclusively(const std::string& queue)
{
    EXPECT_NE(amqp_basic_consume(m_state, 1, Bytes(queue), amqp_empty_bytes, 0, 0, 1, amqp_empty_table), nullptr);
}

void RawClient::DeclareExclusive(const std::string& queue)
{
    EXPECT_NE(amqp_queue_declare(m_state, 1, Bytes(queue), 0, 0, 1, 0, amqp_empty_table), nullptr);
}

void RawClient::Bind(const std::string& queue, const std::string& exchange, const std::string& topic)
{
    EXPECT_NE(amqp_queue_bind(m_state, 1, Bytes(queue), Bytes(exchange), Bytes(topic), amqp_empty_table), nullptr);
}

void RawClient::PublishNested(const std::string& queue, int depth)
{
    std::vector<amqp_table_entry_t> entries(static_cast<std::size_t>(depth));
    for (std::size_t i = 0; i < entries.size(); ++i)
    {
        entries[i].key = amqp_cstring_bytes("n");
        entries[i].value.kind = AMQP_FIELD_KIND_TABLE;
        entries[i].value.value.table = i + 1 < entries.size() ? amqp_table_t{1, &entries[i + 1]} : amqp_empty_table;
    }
    amqp_basic_properties_t properties{};
    properties._flags = AMQP_BASIC_HEADERS_FLAG;
    properties.headers = {1, entries.data()};
    EXPECT_EQ(
        amqp_basic_publish(m_state, 1, amqp_empty_bytes, Bytes(queue), 0, 0, &properties, amqp_cstring_bytes("deep")),
        0);
}

} // namespace VtxQel

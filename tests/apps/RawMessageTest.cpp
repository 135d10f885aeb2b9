#include "apps/RawMessage.h"

#include <boost/make_shared.hpp>
#include <boost/smart_ptr/weak_ptr.hpp>
#include <gtest/gtest.h>

namespace VtxQel
{
namespace
{

namespace proto = qel::apps::v1;

proto::Delivery DeliveryWithoutBody()
{
    proto::Delivery delivery;
    delivery.set_delivery_id(7);
    delivery.set_exchange("exchange");
    delivery.mutable_properties()->set_type("type");
    delivery.set_tries(2);
    delivery.set_idempotency_key("app/message");
    return delivery;
}

/** A record with its bytes behind it, as a message has it. */
struct Owned
{
    explicit Owned(std::size_t size) : bytes(size, 'b') { bytes.back() = 'e'; }

    std::string bytes;
    RmqBody record{bytes.size(), reinterpret_cast<const std::uint8_t*>(bytes.data())};
};

class RawDeliveryTest : public testing::TestWithParam<std::size_t>
{
};

TEST_P(RawDeliveryTest, IsReadAsIfItsBodyHadBeenCopied)
{
    const auto owned = boost::make_shared<Owned>(GetParam());
    grpc::ByteBuffer bytes;
    SerializeAlone(DeliveryWithoutBody(), boost::shared_ptr<RmqBody>(owned, &owned->record), bytes);
    proto::AttachResponse wanted;
    proto::Delivery& delivery = *wanted.mutable_deliveries()->add_deliveries();
    delivery = DeliveryWithoutBody();
    delivery.set_body(owned->bytes);
    EXPECT_EQ(bytes.Length(), wanted.ByteSizeLong());
    proto::AttachResponse read;
    EXPECT_EQ(Parse(bytes, read), "");
    ASSERT_EQ(read.deliveries().deliveries_size(), 1);
    EXPECT_TRUE(read.deliveries().deliveries(0).body() == owned->bytes);
    read.mutable_deliveries()->mutable_deliveries(0)->clear_body();
    EXPECT_EQ(read.deliveries().deliveries(0).SerializeAsString(), DeliveryWithoutBody().SerializeAsString());
}

// Where the lengths need one more byte each.
INSTANTIATE_TEST_SUITE_P(
    Sizes, RawDeliveryTest, testing::Values(1, 60, 127, 128, 16383, 16384, 65536, 2097151, 2097152));

TEST(RawDelivery, HoldsTheBodyUntilItIsSent)
{
    auto owned = boost::make_shared<Owned>(100000);
    const boost::weak_ptr<Owned> left = owned;
    grpc::ByteBuffer bytes;
    SerializeAlone(DeliveryWithoutBody(), boost::shared_ptr<RmqBody>(owned, &owned->record), bytes);
    owned.reset();
    EXPECT_FALSE(left.expired());
    bytes.Clear();
    EXPECT_TRUE(left.expired());
}

} // namespace
} // namespace VtxQel

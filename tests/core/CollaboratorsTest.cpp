#include "common/LockOrThrow.h"
#include "core/VirtualSlot.h"
#include "handler/QelMsgHandler.h"

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>
#include <typeinfo>

namespace VtxQel
{
namespace
{

using Fakes::VirtualSlot;

TEST(Collaborators, OperationsOfAMessageStandInTheirOrder)
{
    EXPECT_EQ(VirtualSlot(&RmqMessage::GetBody), 2U);
    EXPECT_EQ(VirtualSlot(&RmqMessage::GetBodyLength), 3U);
    EXPECT_EQ(VirtualSlot(&RmqMessage::GetAppName), 4U);
    EXPECT_EQ(VirtualSlot(&RmqMessage::GetProperties), 5U);
    EXPECT_EQ(VirtualSlot(&RmqMessage::ToString), 6U);
}

TEST(Collaborators, OperationsOfTheBrokerClientStandInTheirOrder)
{
    EXPECT_EQ(VirtualSlot(&RmqClient::CancelQueue), 2U);
    EXPECT_EQ(VirtualSlot(&RmqClient::DeclareQueue), 3U);
    EXPECT_EQ(VirtualSlot(&RmqClient::SendPingReply), 4U);
    EXPECT_EQ(VirtualSlot(&RmqClient::BindTopic), 5U);
    EXPECT_EQ(VirtualSlot(&RmqClient::UnbindTopic), 6U);
}

TEST(Collaborators, OperationsOfTheOthersStandInTheirOrder)
{
    EXPECT_EQ(VirtualSlot(&AppDispatcher::Dispatch), 2U);
    EXPECT_EQ(VirtualSlot(&AppRegistry::Lookup), 2U);
    EXPECT_EQ(VirtualSlot(&AppRegistryEntry::GetTopics), 2U);
    EXPECT_EQ(VirtualSlot(&AppRegistryEntry::AddTopic), 3U);
    EXPECT_EQ(VirtualSlot(&AppRegistryEntry::ClearTopics), 4U);
    EXPECT_EQ(VirtualSlot(&EndpointController::FE), 2U);
    EXPECT_EQ(VirtualSlot(&FE::Reassign), 2U);
}

TEST(Collaborators, OperationsOfTheRoutingRegistryStandInTheirOrder)
{
    EXPECT_EQ(VirtualSlot(&RoutingRegistry::Add), 2U);
    EXPECT_EQ(VirtualSlot(&RoutingRegistry::Remove), 3U);
    EXPECT_EQ(VirtualSlot(&RoutingRegistry::Find), 4U);
}

TEST(Collaborators, OperationsOfTheHandlerStandInTheirOrder)
{
    EXPECT_EQ(VirtualSlot(&MsgHandler::Callback), 2U);
    EXPECT_EQ(VirtualSlot(&QelMsgHandler::Callback), 2U);
    EXPECT_EQ(VirtualSlot(&QelMsgHandler::RegisterTopicOrQueue), 3U);
    EXPECT_EQ(VirtualSlot(&QelMsgHandler::CleanTopicFromApp), 4U);
    EXPECT_EQ(VirtualSlot(&QelMsgHandler::HandleSyncResponse), 5U);
    EXPECT_EQ(VirtualSlot(&QelMsgHandler::RegisterRoutingTopic), 6U);
    EXPECT_EQ(VirtualSlot(&QelMsgHandler::RegisterRoutingQueue), 7U);
    EXPECT_EQ(VirtualSlot(&QelMsgHandler::ParseAppInitConfig), 8U);
    EXPECT_EQ(VirtualSlot(&QelMsgHandler::PingFromMPCallback), 9U);
    EXPECT_EQ(VirtualSlot(&QelMsgHandler::ReassignHintCallback), 10U);
}

// The handler is its table and six weak references, the registry its table, its lock and its map.
TEST(Collaborators, ObjectsHoldTheirMembersAndNothingElse)
{
    EXPECT_EQ(sizeof(QelMsgHandler), sizeof(void*) + 6 * sizeof(boost::weak_ptr<RmqInfo>));
    EXPECT_EQ(
        sizeof(RoutingRegistry), sizeof(void*) + sizeof(boost::recursive_mutex) +
                                     sizeof(std::map<std::string, boost::shared_ptr<RoutingRegistryEntry>>));
    EXPECT_TRUE((std::is_base_of_v<MsgHandler, QelMsgHandler>));
    EXPECT_EQ(sizeof(MsgHandler), sizeof(void*));
}

TEST(Collaborators, RecordsKeepTheOrderOfTheirFields)
{
    EXPECT_LT(offsetof(RmqBody, length), offsetof(RmqBody, bytes));
    const RmqProperties properties;
    EXPECT_LT(&properties.type, &properties.replyTo);
    EXPECT_LT(&properties.replyTo, &properties.correlationId);
    const RmqInfo info;
    EXPECT_LT(&info.exchange, &info.clientQueue);
    EXPECT_LT(&info.clientQueue, &info.priorityQueue);
}

TEST(LockOrThrow, AnObjectAliveIsHeld)
{
    auto info = boost::make_shared<RmqInfo>();
    const boost::weak_ptr<RmqInfo> reference = info;
    const auto locked = LockOrThrow(reference);
    info.reset();
    EXPECT_FALSE(reference.expired());
}

template <class T>
std::string WhatLockingThrows(const boost::weak_ptr<T>& reference)
{
    try
    {
        LockOrThrow(reference);
    }
    catch (const QelScopeException& error)
    {
        return error.what();
    }
    return "nothing";
}

TEST(LockOrThrow, AnObjectGoneIsNamedByItsType)
{
    EXPECT_EQ(WhatLockingThrows(boost::weak_ptr<RmqInfo>()), typeid(RmqInfo).name());
    EXPECT_EQ(WhatLockingThrows(boost::weak_ptr<class FE>()), typeid(FE).name());
}

TEST(LockOrThrow, AnEmptyPointerIsTreatedLikeAnObjectGone)
{
    const boost::shared_ptr<RmqInfo> holdsNothing(static_cast<RmqInfo*>(nullptr));
    const boost::weak_ptr<RmqInfo> reference = holdsNothing;
    ASSERT_FALSE(reference.expired());
    EXPECT_EQ(WhatLockingThrows(reference), typeid(RmqInfo).name());
}

} // namespace
} // namespace VtxQel

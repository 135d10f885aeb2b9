#include "common/QelException.h"
#include "core/HandlerTest.h"

#include <cstddef>
#include <memory>

namespace VtxQel
{
namespace
{

using Fakes::LogCapture;
using Fakes::Strings;

class QelMsgHandlerObject : public HandlerTest
{
};

TEST_F(QelMsgHandlerObject, ConstructionAndDestructionTouchNoCollaborator)
{
    const LogCapture log(7);
    {
        const QelMsgHandler other(routingRegistry, appRegistry, appDispatcher, rmqClient, rmqInfo, endpointController);
        const QelMsgHandler empty({}, {}, {}, {}, {}, {});
    }
    EXPECT_EQ(journal.Notes(), Strings());
    EXPECT_EQ(log.Lines(), Strings());
    EXPECT_EQ(rmqClient.use_count(), 1);
}

TEST_F(QelMsgHandlerObject, ItKeepsNoCollaboratorAlive)
{
    const boost::weak_ptr<RmqClient> client = rmqClient;
    const boost::weak_ptr<AppDispatcher> dispatcher = appDispatcher;
    rmqClient.reset();
    appDispatcher.reset();
    EXPECT_TRUE(client.expired());
    EXPECT_TRUE(dispatcher.expired());
}

TEST_F(QelMsgHandlerObject, OperationsThatDoNotNeedADestroyedCollaboratorGoOn)
{
    endpointController.reset();
    EXPECT_TRUE(handler.Callback(Message(pingType)));
    EXPECT_EQ(
        Thrown<QelScopeException>([&] { handler.Callback(Message(hintType)); }), typeid(EndpointController).name());
}

// Allocates an object's reference counts and notes when they are given back: that is when the last weak reference went.
template <class T>
struct NotingAllocator
{
    using value_type = T;

    NotingAllocator(Fakes::Journal& sharedJournal, std::string objectName)
        : journal(&sharedJournal), name(std::move(objectName))
    {
    }
    template <class U>
    NotingAllocator(const NotingAllocator<U>& other) : journal(other.journal), name(other.name)
    {
    }

    T* allocate(std::size_t count) { return std::allocator<T>().allocate(count); }
    void deallocate(T* memory, std::size_t count)
    {
        journal->Note(name);
        std::allocator<T>().deallocate(memory, count);
    }

    Fakes::Journal* journal;
    std::string name;
};

template <class T>
boost::weak_ptr<T> Tracked(Fakes::Journal& journal, const std::string& name)
{
    return boost::shared_ptr<T>(
        static_cast<T*>(nullptr), [](T*) {}, NotingAllocator<char>(journal, name));
}

TEST_F(QelMsgHandlerObject, ItsReferencesAreReleasedInReverseMemberOrder)
{
    {
        const QelMsgHandler tracked(
            Tracked<RoutingRegistry>(journal, "routing registry"), Tracked<AppRegistry>(journal, "app registry"),
            Tracked<AppDispatcher>(journal, "app dispatcher"), Tracked<RmqClient>(journal, "rmq client"),
            Tracked<RmqInfo>(journal, "rmq info"), Tracked<EndpointController>(journal, "endpoint controller"));
        EXPECT_EQ(journal.Notes(), Strings());
    }
    EXPECT_EQ(
        journal.Notes(),
        Strings(
            {"endpoint controller", "rmq info", "rmq client", "app dispatcher", "app registry", "routing registry"}));
}

TEST_F(QelMsgHandlerObject, ItCanBeDestroyedThroughItsBase)
{
    std::unique_ptr<MsgHandler> base = std::make_unique<QelMsgHandler>(
        Tracked<RoutingRegistry>(journal, "routing registry"), boost::weak_ptr<AppRegistry>(),
        boost::weak_ptr<AppDispatcher>(), boost::weak_ptr<RmqClient>(), boost::weak_ptr<RmqInfo>(),
        boost::weak_ptr<EndpointController>());
    base.reset();
    EXPECT_EQ(journal.Notes(), Strings({"routing registry"}));
}

} // namespace
} // namespace VtxQel

#include "common/QelException.h"

#include "core/VirtualSlot.h"

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <string>
#include <type_traits>
#include <typeinfo>

namespace VtxQel
{
namespace
{

template <class Exception>
std::string WhatOfThrown(const std::string& message)
{
    try
    {
        throw Exception(message);
    }
    catch (const QelException& error)
    {
        EXPECT_EQ(typeid(error), typeid(Exception));
        return error.what();
    }
}

TEST(QelException, TheBaseIsAbstractAndAStandardException)
{
    EXPECT_TRUE(std::is_abstract_v<QelException>);
    EXPECT_TRUE((std::is_base_of_v<std::exception, QelException>));
}

TEST(QelException, TheFamilyDerivesAsItsCatchersExpect)
{
    EXPECT_TRUE((std::is_base_of_v<QelException, QelScopeException>));
    EXPECT_FALSE((std::is_base_of_v<RmqException, QelScopeException>));
    EXPECT_TRUE((std::is_base_of_v<QelException, RmqException>));
    EXPECT_TRUE((std::is_base_of_v<RmqException, RmqMessageException>));
    EXPECT_TRUE((std::is_base_of_v<RmqException, RmqConnectionException>));
    EXPECT_FALSE((std::is_base_of_v<RmqMessageException, RmqConnectionException>));
    EXPECT_FALSE((std::is_abstract_v<RmqException>));
}

TEST(QelException, WhatIsTheMessage)
{
    EXPECT_EQ(WhatOfThrown<QelScopeException>("gone"), "gone");
    EXPECT_EQ(WhatOfThrown<RmqException>("broker"), "broker");
    EXPECT_EQ(WhatOfThrown<RmqMessageException>("message"), "message");
    EXPECT_EQ(WhatOfThrown<RmqConnectionException>("connection"), "connection");
}

TEST(QelException, WhatOfAScopeExceptionIsTheTypeNameUnchanged)
{
    EXPECT_STREQ(QelScopeException(typeid(QelException).name()).what(), typeid(QelException).name());
}

TEST(QelException, TheMessageIsACopy)
{
    std::string message = "as it was";
    const RmqException error(message);
    message = "changed";
    EXPECT_STREQ(error.what(), "as it was");
}

TEST(QelException, TheMessageIsTheOnlyField)
{
    constexpr std::size_t expected = sizeof(std::exception) + sizeof(std::string);
    EXPECT_EQ(sizeof(QelScopeException), expected);
    EXPECT_EQ(sizeof(RmqMessageException), expected);
    EXPECT_EQ(sizeof(RmqConnectionException), expected);
}

TEST(QelException, WhatFollowsTheDestructorInTheVirtualTable)
{
    EXPECT_EQ(Fakes::VirtualSlot(&QelScopeException::what), 2U);
    EXPECT_EQ(Fakes::VirtualSlot(&RmqConnectionException::what), 2U);
}

} // namespace
} // namespace VtxQel

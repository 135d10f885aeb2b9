#include "qelctl/JsonTree.h"

#include <gtest/gtest.h>

namespace VtxQel
{

TEST(Positions, ValuesKnowWhereTheyBegin)
{
    const JsonNode root = ParseJson("{ \"a\\\"{\" : 12,\n\t\"b\":[true , \"x\\\\\",null,{}]}");

    ASSERT_EQ(root.members.size(), 2U);
    EXPECT_EQ(root.members[0].name, "a\"{");
    EXPECT_EQ(root.names[0].column, 3U);
    EXPECT_EQ(root.members[0].value.at.column, 12U);
    EXPECT_EQ(root.members[0].value.number, 12U);
    const JsonNode& list = root.members[1].value;
    ASSERT_EQ(list.elements.size(), 4U);
    EXPECT_EQ(list.at.line, 2U);
    EXPECT_EQ(list.at.column, 6U);
    EXPECT_EQ(list.elements[0].at.column, 7U);
    EXPECT_EQ(list.elements[1].at.column, 14U);
    EXPECT_EQ(list.elements[1].text, "x\\");
    EXPECT_EQ(list.elements[2].at.column, 20U);
    EXPECT_EQ(list.elements[3].at.column, 25U);
}

} // namespace VtxQel

#include "agent/SettingsText.h"

#include <gtest/gtest.h>

namespace VtxQel
{
namespace
{

const std::vector<Setting> settings{
    {"top", "1", true},
    {"a.given", "\"x\"", true},
    {"b.c.default", "[]", false},
    {"a.default", "true", false},
    {"b.c.nothing", std::nullopt, false}};

TEST(SettingsText, WhatTheFileSaysIsAFileOfItsOwn)
{
    EXPECT_EQ(SettingsText(settings, false), "top = 1\n\n[a]\ngiven = \"x\"\n");
    EXPECT_EQ(SettingsText({}, false), "");
}

TEST(SettingsText, DefaultsAreMarkedAndWhatHasNoneIsNamed)
{
    EXPECT_EQ(
        SettingsText(settings, true), "top = 1\n\n[a]\ngiven = \"x\"\ndefault = true  # default\n\n"
                                      "[b.c]\ndefault = []  # default\n# nothing is not set\n");
}

TEST(SettingsText, AKeyHasChangedWhenItsValueHas)
{
    std::vector<Setting> now = settings;
    now[0].given = false;
    now[2].value = "[1]";
    now[4].value = "0";
    EXPECT_EQ(ChangedKeys(settings, now), (std::vector<std::string>{"b.c.default", "b.c.nothing"}));
    EXPECT_TRUE(ChangedKeys(settings, settings).empty());
}

} // namespace
} // namespace VtxQel

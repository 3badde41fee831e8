// Members of records that others wrote, of whatever type they made them.
#include "console/fields.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "console/progress.h"

using namespace console;

TEST(Fields, WhatIsThereIsRead) {
  nlohmann::json object = {{"name", "a"}, {"less", -3}, {"half", 2.5}, {"yes", true}};
  EXPECT_EQ(textOf(object, "name"), "a");
  EXPECT_EQ(numberOf(object, "less"), -3);
  EXPECT_EQ(numberOf(object, "half"), 2);
  EXPECT_EQ(countOf(object, "half"), 2u);
  EXPECT_TRUE(truthOf(object, "yes"));
}

TEST(Fields, WhatIsMissingOrOfAnotherTypeReadsAsNothing) {
  nlohmann::json object = {{"text", "7"}, {"number", 7}, {"list", {1}}, {"null", nullptr}};
  for (const char *name : {"none", "number", "list", "null"}) EXPECT_EQ(textOf(object, name), "");
  for (const char *name : {"none", "text", "list", "null"}) {
    EXPECT_EQ(numberOf(object, name), 0) << name;
    EXPECT_EQ(numberOf(object, name, -1), -1) << name;
    EXPECT_EQ(countOf(object, name), 0u) << name;
  }
  for (const char *name : {"none", "number", "list", "null", "text"})
    EXPECT_FALSE(truthOf(object, name)) << name;
}

TEST(Fields, NumbersWithoutRoomReadAsNothing) {
  nlohmann::json object = {{"large", UINT64_MAX}, {"huge", 1e300}, {"less", -1}};
  EXPECT_EQ(numberOf(object, "large", 5), 5);
  EXPECT_EQ(numberOf(object, "huge", 5), 5);
  EXPECT_EQ(countOf(object, "large"), UINT64_MAX);
  EXPECT_EQ(countOf(object, "huge"), 0u);
  EXPECT_EQ(countOf(object, "less"), 0u);
}

TEST(Processes, AreListedOrNotOrNobodyKnows) {
  const char *list = R"([7,{"pid":"12"},{"pid":12},{}])";
  EXPECT_EQ(isListed(list, 12), true);
  EXPECT_EQ(isListed(list, 7), false);
  EXPECT_EQ(isListed("ERROR:  no such word\n", 12), std::nullopt);
}

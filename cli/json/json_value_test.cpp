// The JSON value: its kinds, accessors, equality and merging.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "json/json.h"
#include "json/test_json.h"

namespace vorn {
namespace {

TEST(JSONValue, KindsOfEachCase) {
  EXPECT_EQ(JSON().kind(), JSON::Kind::null);
  EXPECT_EQ(JSON(nullptr).kind(), JSON::Kind::null);
  EXPECT_EQ(JSON(true).kind(), JSON::Kind::boolean);
  EXPECT_EQ(JSON(1.5).kind(), JSON::Kind::number);
  EXPECT_EQ(JSON(7).kind(), JSON::Kind::number);
  EXPECT_EQ(JSON(int64_t{-7}).kind(), JSON::Kind::number);
  EXPECT_EQ(JSON("x").kind(), JSON::Kind::string);
  EXPECT_EQ(JSON(std::string("x")).kind(), JSON::Kind::string);
  EXPECT_EQ(JSON(std::string_view("x")).kind(), JSON::Kind::string);
  EXPECT_EQ(JSON::array().kind(), JSON::Kind::array);
  EXPECT_EQ(JSON::object().kind(), JSON::Kind::object);
  EXPECT_TRUE(JSON().isNull());
  EXPECT_FALSE(JSON(false).isNull());
}

TEST(JSONValue, SubscriptTakesLastDuplicateAndSerializationKeepsBoth) {
  JSON v = obj({{"a", 1}, {"b", 2}, {"a", 3}});
  ASSERT_NE(v.get("a"), nullptr);
  EXPECT_EQ(*v.get("a"), JSON(3));
  EXPECT_EQ(*v.get("b"), JSON(2));
  EXPECT_EQ(v.get("c"), nullptr);
  EXPECT_EQ(v.serialized(0), "{\"a\":1,\"b\":2,\"a\":3}");
}

TEST(JSONValue, SubscriptOnOtherCasesIsAbsent) {
  EXPECT_EQ(JSON().get("a"), nullptr);
  EXPECT_EQ(JSON("a").get("a"), nullptr);
  EXPECT_EQ(arr({"a"}).get("a"), nullptr);
  EXPECT_EQ(JSON(1).get("a"), nullptr);
}

TEST(JSONValue, KeysCompareByBytes) {
  JSON v = obj({{"\xC3\xA9", 1}, {"e\xCC\x81", 2}});
  EXPECT_EQ(*v.get("\xC3\xA9"), JSON(1));
  EXPECT_EQ(*v.get("e\xCC\x81"), JSON(2));
  EXPECT_EQ(v.get("e"), nullptr);
  EXPECT_EQ(v.get(""), nullptr);
  EXPECT_EQ(*obj({{"", 5}}).get(""), JSON(5));
}

TEST(JSONValue, ErrorLooksAtTheLastErrorPairOnly) {
  EXPECT_EQ(obj({{"error", 5}}).error(), std::nullopt);
  EXPECT_EQ(obj({{"error", "x"}, {"error", 5}}).error(), std::nullopt);
  EXPECT_EQ(obj({{"error", 5}, {"error", "x"}}).error(), "x");
  EXPECT_EQ(obj({{"error", "boom"}, {"other", 1}}).error(), "boom");
  EXPECT_EQ(obj({}).error(), std::nullopt);
  EXPECT_EQ(JSON("error").error(), std::nullopt);
  EXPECT_EQ(arr({obj({{"error", "x"}})}).error(), std::nullopt);
}

TEST(JSONValue, IntegerAccessor) {
  EXPECT_EQ(JSON(2.0).integer(), 2);
  EXPECT_EQ(JSON(2.5).integer(), std::nullopt);
  EXPECT_EQ(JSON(9e15).integer(), std::nullopt);
  EXPECT_EQ(JSON(-9e15).integer(), std::nullopt);
  EXPECT_EQ(JSON(8e15).integer(), int64_t{8000000000000000});
  EXPECT_EQ(JSON(-8e15).integer(), int64_t{-8000000000000000});
  EXPECT_EQ(JSON(8999999999999999.0).integer(), int64_t{8999999999999999});
  EXPECT_EQ(JSON(-0.0).integer(), 0);
  EXPECT_EQ(JSON(1e300).integer(), std::nullopt);
  EXPECT_EQ(JSON(std::nan("")).integer(), std::nullopt);
  EXPECT_EQ(JSON(std::numeric_limits<double>::infinity()).integer(), std::nullopt);
  EXPECT_EQ(JSON(-std::numeric_limits<double>::infinity()).integer(), std::nullopt);
  EXPECT_EQ(JSON(1e-300).integer(), std::nullopt);
  EXPECT_EQ(JSON("2").integer(), std::nullopt);
  EXPECT_EQ(JSON(true).integer(), std::nullopt);
  EXPECT_EQ(JSON().integer(), std::nullopt);
}

TEST(JSONValue, OtherAccessorsAnswerAbsentForTheWrongCase) {
  EXPECT_TRUE(obj({{"a", 1}}).list().empty());
  EXPECT_TRUE(JSON("x").list().empty());
  EXPECT_EQ(arr({1, 2}).list().size(), 2u);
  EXPECT_FALSE(JSON(1).isTrue());
  EXPECT_FALSE(JSON("true").isTrue());
  EXPECT_FALSE(JSON().isTrue());
  EXPECT_FALSE(JSON(false).isTrue());
  EXPECT_TRUE(JSON(true).isTrue());
  EXPECT_EQ(JSON("5").number(), std::nullopt);
  EXPECT_EQ(JSON(true).number(), std::nullopt);
  EXPECT_EQ(JSON(2.5).number(), 2.5);
  EXPECT_EQ(JSON(5).string(), std::nullopt);
  EXPECT_EQ(JSON().string(), std::nullopt);
  ASSERT_NE(JSON("hi").string(), std::nullopt);
  EXPECT_EQ(*JSON("hi").string(), "hi");
  EXPECT_EQ(arr({}).members(), nullptr);
  ASSERT_NE(obj({{"k", 1}}).members(), nullptr);
  EXPECT_EQ(obj({{"k", 1}}).members()->at(0).first, "k");
}

TEST(JSONValue, MutableAccessBuildsInPlace) {
  JSON a = JSON::array();
  ASSERT_NE(a.mutableArray(), nullptr);
  a.mutableArray()->push_back(1);
  a.mutableArray()->push_back("two");
  EXPECT_EQ(a.serialized(0), "[1,\"two\"]");
  EXPECT_EQ(a.mutableObject(), nullptr);

  JSON o = JSON::object();
  ASSERT_NE(o.mutableObject(), nullptr);
  o.mutableObject()->emplace_back("k", a);
  EXPECT_EQ(o.serialized(0), "{\"k\":[1,\"two\"]}");
  EXPECT_EQ(o.mutableArray(), nullptr);
  EXPECT_EQ(JSON().mutableArray(), nullptr);
}

TEST(JSONValue, CopiesAreIndependent) {
  JSON a = arr({1});
  JSON b = a;
  b.mutableArray()->emplace_back(2);
  EXPECT_EQ(a.list().size(), 1u);
  EXPECT_EQ(b.list().size(), 2u);
}

TEST(JSONEquality, NumbersUseFloatingPointEquality) {
  double nan = std::nan("");
  JSON n(nan);
  EXPECT_FALSE(n == n);
  EXPECT_TRUE(n != n);
  EXPECT_FALSE(arr({nan}) == arr({nan}));
  EXPECT_EQ(JSON(0.0), JSON(-0.0));
  EXPECT_EQ(JSON(1), JSON(1.0));
  EXPECT_NE(JSON(1), JSON(1.5));
}

TEST(JSONEquality, CasesMustMatch) {
  EXPECT_NE(JSON(1), JSON(true));
  EXPECT_NE(JSON(0), JSON(false));
  EXPECT_NE(JSON("1"), JSON(1));
  EXPECT_NE(JSON(), JSON(false));
  EXPECT_NE(JSON::array(), JSON::object());
  EXPECT_EQ(JSON(), JSON(nullptr));
  EXPECT_EQ(JSON(true), JSON(true));
  EXPECT_NE(JSON(true), JSON(false));
  EXPECT_EQ(JSON("a"), JSON("a"));
  EXPECT_NE(JSON("a"), JSON("b"));
}

TEST(JSONEquality, ContainersCompareInOrder) {
  EXPECT_EQ(arr({1, "a", JSON()}), arr({1, "a", JSON()}));
  EXPECT_NE(arr({1, 2}), arr({2, 1}));
  EXPECT_NE(arr({1}), arr({1, 1}));
  EXPECT_EQ(obj({{"a", 1}, {"b", 2}}), obj({{"a", 1}, {"b", 2}}));
  EXPECT_NE(obj({{"a", 1}, {"b", 2}}), obj({{"b", 2}, {"a", 1}}));
  EXPECT_NE(obj({{"a", 1}}), obj({{"a", 1}, {"a", 1}}));
  EXPECT_NE(obj({{"a", 1}}), obj({{"a", 2}}));
  EXPECT_NE(obj({{"a", 1}}), obj({{"b", 1}}));
}

TEST(JSONMerging, PrependKeepsExistingValueAndMovesItFirst) {
  JSON x("X"), y("Y");
  EXPECT_EQ(obj({{"a", 1}, {"instance", y}}).merging({{"instance", x}}, true),
            obj({{"instance", y}, {"a", 1}}));
  EXPECT_EQ(obj({{"a", 1}}).merging({{"instance", x}}, true), obj({{"instance", x}, {"a", 1}}));
}

TEST(JSONMerging, AppendReplacesValueInPlace) {
  JSON x("X"), y("Y");
  EXPECT_EQ(obj({{"a", 1}, {"instance", y}}).merging({{"instance", x}}, false),
            obj({{"a", 1}, {"instance", x}}));
  EXPECT_EQ(obj({{"instance", y}, {"a", 1}}).merging({{"instance", x}}, false),
            obj({{"instance", x}, {"a", 1}}));
  EXPECT_EQ(obj({{"a", 1}}).merging({{"b", 2}, {"c", 3}}, false),
            obj({{"a", 1}, {"b", 2}, {"c", 3}}));
}

TEST(JSONMerging, DuplicatesInEachDirection) {
  JSON v = obj({{"k", 1}, {"a", 0}, {"k", 2}});
  // Without prepend the first "k" is replaced and the later one is left alone.
  EXPECT_EQ(v.merging({{"k", 9}}, false), obj({{"k", 9}, {"a", 0}, {"k", 2}}));
  // With prepend the last "k" wins and every "k" leaves the tail.
  EXPECT_EQ(v.merging({{"k", 9}}, true), obj({{"k", 2}, {"a", 0}}));
  // Several given pairs keep their given order in front.
  EXPECT_EQ(v.merging({{"z", 5}, {"k", 9}}, true), obj({{"z", 5}, {"k", 2}, {"a", 0}}));
  // Given pairs apply one after the other.
  EXPECT_EQ(obj({}).merging({{"x", 1}, {"x", 2}}, false), obj({{"x", 2}}));
}

TEST(JSONMerging, NonObjectsComeBackUnchanged) {
  JSON a = arr({1, 2});
  EXPECT_EQ(a.merging({{"k", 1}}, false), a);
  EXPECT_EQ(a.merging({{"k", 1}}, true), a);
  EXPECT_EQ(JSON("s").merging({{"k", 1}}, true), JSON("s"));
  EXPECT_EQ(JSON("s").merging({{"k", 1}}, false), JSON("s"));
  EXPECT_TRUE(JSON().merging({{"k", 1}}, false).isNull());
  EXPECT_EQ(JSON(3).merging({{"k", 1}}, true), JSON(3));
}

TEST(JSONMerging, ReceiverIsNotModified) {
  JSON v = obj({{"a", 1}});
  JSON merged = v.merging({{"a", 2}}, false);
  EXPECT_EQ(v, obj({{"a", 1}}));
  EXPECT_EQ(merged, obj({{"a", 2}}));
}

}  // namespace
}  // namespace vorn

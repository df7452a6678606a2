#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>

#include "core/test_support.h"
#include "instances/instances.h"
#include "instances/parallel.h"
#include "instances/test_instances.h"

namespace vorn {
namespace {

using testing::FakeInstanceServer;
using testing::FakeReply;
using testing::SeenRequest;
using testing::SleepingChild;
using testing::TempDir;

// ---- query encoding ----

TEST(PercentEncode, SpaceAsPlusOrPercent) {
  EXPECT_EQ(percentEncode("a b", formSafe(), true), "a+b");
  EXPECT_EQ(percentEncode("a b", componentSafe(), false), "a%20b");
  EXPECT_EQ(percentEncode("a b", formSafe(), false), "a%20b");
}

TEST(PercentEncode, TheTwoSetsDiffer) {
  EXPECT_EQ(percentEncode("~", componentSafe(), false), "~");
  EXPECT_EQ(percentEncode("~", formSafe(), true), "%7E");
  EXPECT_EQ(percentEncode("!'()*", componentSafe(), false), "!'()*");
  EXPECT_EQ(percentEncode("!'()*", formSafe(), true), "%21%27%28%29*");
  EXPECT_EQ(componentSafe().count(), 71u);
  EXPECT_EQ(formSafe().count(), 66u);
}

TEST(PercentEncode, BytesAreEncodedInUpperCaseHex) {
  EXPECT_EQ(percentEncode("/", componentSafe(), false), "%2F");
  EXPECT_EQ(percentEncode("\xC3\xA9", componentSafe(), false), "%C3%A9");
  EXPECT_EQ(percentEncode(std::string("a\0b", 3), componentSafe(), false), "a%00b");
  EXPECT_EQ(percentEncode("\xFF", formSafe(), true), "%FF");
  EXPECT_EQ(percentEncode("+&=?#%", formSafe(), true), "%2B%26%3D%3F%23%25");
  EXPECT_EQ(percentEncode("", formSafe(), true), "");
  EXPECT_EQ(percentEncode("AZaz09-_.", formSafe(), true), "AZaz09-_.");
}

TEST(SearchParams, PairsInOrder) {
  EXPECT_EQ(searchParams({{"q", "x&y"}, {"n", "1"}}), "q=x%26y&n=1");
  EXPECT_EQ(searchParams({{"z", "1"}, {"a", "2"}}), "z=1&a=2");
  EXPECT_EQ(searchParams({}), "");
  EXPECT_EQ(searchParams({{"a b", "c d~"}}), "a+b=c+d%7E");
  EXPECT_EQ(searchParams({{"", ""}}), "=");
  EXPECT_EQ(searchParams({{"k", "="}, {"k", "v"}}), "k=%3D&k=v");
}

// ---- parallelMap ----

TEST(ParallelMap, EmptyListStartsNothing) {
  std::atomic<int> calls{0};
  std::vector<int> none;
  auto out = parallelMap(none, [&](int x) {
    ++calls;
    return x;
  });
  EXPECT_TRUE(out.empty());
  EXPECT_EQ(calls.load(), 0);
}

TEST(ParallelMap, ResultsKeepTheItemsOrder) {
  std::vector<int> items;
  for (int i = 0; i < 40; ++i)
    items.push_back(i);
  // Later items finish first.
  auto out = parallelMap(items, [](int x) {
    std::this_thread::sleep_for(std::chrono::milliseconds((40 - x) / 4));
    return "item " + std::to_string(x);
  });
  ASSERT_EQ(out.size(), items.size());
  for (int i = 0; i < 40; ++i)
    EXPECT_EQ(out[i], "item " + std::to_string(i));
}

TEST(ParallelMap, EachItemIsTransformedOnce) {
  std::vector<int> items(200, 1);
  std::atomic<int> calls{0};
  auto out = parallelMap(items, [&](int x) {
    ++calls;
    return x * 2;
  });
  EXPECT_EQ(calls.load(), 200);
  EXPECT_EQ(out, std::vector<int>(200, 2));
}

// Jobs that can only finish once all of them have started: they prove the jobs overlap, so
// N slow instances cost about one latency rather than N.
TEST(ParallelMap, JobsRunAtTheSameTime) {
  const int n = 8;
  std::mutex m;
  std::condition_variable cv;
  int started = 0;
  std::vector<int> items(n, 0);
  auto out = parallelMap(items, [&](int) {
    std::unique_lock<std::mutex> hold(m);
    ++started;
    cv.notify_all();
    return cv.wait_for(hold, std::chrono::seconds(10), [&] { return started == n; });
  });
  EXPECT_EQ(out, std::vector<bool>(n, true));
}

TEST(ParallelMap, AtMostSixtyFourAtOnce) {
  std::atomic<int> running{0};
  std::atomic<int> peak{0};
  std::vector<int> items(150, 0);
  parallelMap(items, [&](int) {
    int now = ++running;
    int seen = peak.load();
    while (now > seen && !peak.compare_exchange_weak(seen, now)) {
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    --running;
    return 0;
  });
  EXPECT_GE(peak.load(), 1);
  EXPECT_LE(peak.load(), 64);
}

TEST(ParallelMap, AJobsExceptionReachesTheCaller) {
  std::vector<int> items = {1, 2, 3, 4};
  std::atomic<int> calls{0};
  EXPECT_THROW(parallelMap(items,
                           [&](int x) {
                             ++calls;
                             if (x == 3) throw std::runtime_error("three");
                             return x;
                           }),
               std::runtime_error);
  EXPECT_EQ(calls.load(), 4);  // the others still ran to completion
}

TEST(ParallelMap, ResultsNeedNoDefaultConstructor) {
  struct Tagged {
    explicit Tagged(int v) : value(v) {}
    int value;
  };
  std::vector<int> items = {3, 1, 2};
  auto out = parallelMap(items, [](int x) { return Tagged(x * 10); });
  ASSERT_EQ(out.size(), 3u);
  EXPECT_EQ(out[0].value, 30);
  EXPECT_EQ(out[2].value, 20);
}

// ---- postEach and readEach ----

struct FanoutTest : ::testing::Test {
  TempDir tmp;
  CapturedContext io;
  std::string root;
  std::vector<std::unique_ptr<SleepingChild>> children;
  std::vector<std::unique_ptr<FakeInstanceServer>> servers;

  FanoutTest() {
    io.ctx.env["XDG_RUNTIME_DIR"] = tmp.path();
    root = tmp / "vorn";
    std::filesystem::create_directories(root);
    io.ctx.cwd = tmp.path();
  }

  Instances instances() { return Instances{io.ctx}; }

  // An instance whose replies to anything but GET /instance come from `reply`.
  InstanceInfo add(const std::string& id, int64_t pid,
                   std::function<FakeReply(const SeenRequest&)> reply) {
    children.push_back(std::make_unique<SleepingChild>());
    std::string sock = root + "/" + std::to_string(children.back()->pid()) + "/fs.sock";
    JSON record = testing::record(id, pid, sock).json();
    std::string recordText = record.serialized(0);
    servers.push_back(
        std::make_unique<FakeInstanceServer>(sock, [recordText, reply](const SeenRequest& request) {
          if (request.method == "GET" && request.path == "/instance") {
            return FakeReply{200, recordText};
          }
          return reply(request);
        }));
    auto info = InstanceInfo::fromJSON(record);
    info->foreign = isForeignHost(*info, sock);
    return *info;
  }

  static std::function<FakeReply(const SeenRequest&)> replying(int status, std::string body) {
    return [status, body](const SeenRequest&) { return FakeReply{status, body}; };
  }

  InstanceInfo unreachable(const std::string& id) {
    InstanceInfo info;
    info.id = id;
    info.socketPath = tmp / "gone.sock";
    return info;
  }
};

TEST_F(FanoutTest, PostEachOneTargetPrintsOnlyTheBody) {
  InstanceInfo a = add("a", 1, replying(200, "{\"ok\":true,\"n\":1}"));
  instances().postEach({a}, "/nogo/run", JSON::object({{"x", JSON(1)}}), "nogo run", false);
  EXPECT_EQ(io.out, "{\n  \"ok\": true,\n  \"n\": 1\n}\n");
  EXPECT_EQ(io.err, "");
  auto seen = servers[0]->requests();
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].method, "POST");
  EXPECT_EQ(seen[0].path, "/nogo/run");
  EXPECT_EQ(seen[0].body, "{\"x\":1}");
}

TEST_F(FanoutTest, PostEachJsonWrapsEvenOneTarget) {
  InstanceInfo a = add("a", 1, replying(200, "{\"done\":1}"));
  instances().postEach({a}, "/p", JSON::object(), "nogo run", true);
  EXPECT_EQ(
      io.out,
      JSON::object(
          {{"results", JSON::array({JSON::object({{"id", JSON("a")},
                                                  {"status", JSON(200)},
                                                  {"body", JSON::object({{"done", JSON(1)}})}})})}})
              .serialized(2) +
          "\n");
}

TEST_F(FanoutTest, PostEachTwoTargetsInTargetOrder) {
  InstanceInfo a = add("a", 1, [](const SeenRequest&) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    return FakeReply{200, "{\"who\":\"a\"}"};
  });
  InstanceInfo b = add("b", 2, replying(201, "{\"who\":\"b\"}"));
  instances().postEach({a, b}, "/p", JSON::object(), "nogo run", false);
  JSON out = JSON::parse(io.out);
  const auto& rows = out.get("results")->list();
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(*rows[0].get("id")->string(), "a");
  EXPECT_EQ(*rows[1].get("id")->string(), "b");
  EXPECT_EQ(rows[1].get("status")->integer(), 201);
  EXPECT_EQ(io.err, "");
}

TEST_F(FanoutTest, PostEachOkFalseFailsWithDetailLine) {
  InstanceInfo a = add("a", 1, replying(200, "{\"ok\":false,\"detail\":\"x\"}"));
  InstanceInfo b = add("b", 2, replying(200, "{\"ok\":true}"));
  CliError e = thrown([&] {
    instances().postEach({a, b}, "/p", JSON::object(), "nogo run", false);
  });
  EXPECT_EQ(e.message, "vorn nogo run: 1 target(s) failed");
  EXPECT_EQ(e.code, 1);
  EXPECT_FALSE(e.instances);
  EXPECT_EQ(io.err, "vorn nogo run [a]: x\n");
  EXPECT_NE(io.out.find("\"results\""), std::string::npos);
}

TEST_F(FanoutTest, PostEachUnreachableTargetHasStatusZeroAndNoDetailLine) {
  InstanceInfo b = add("b", 2, replying(200, "{}"));
  CliError e = thrown([&] {
    instances().postEach({unreachable("gone"), b}, "/p", JSON::object(), "nogo run", false);
  });
  EXPECT_EQ(e.message, "vorn nogo run: 1 target(s) failed");
  EXPECT_EQ(io.err, "");
  JSON out = JSON::parse(io.out);
  const JSON& row = out.get("results")->list()[0];
  EXPECT_EQ(row.get("status")->integer(), 0);
  ASSERT_TRUE(row.get("body")->error());
  EXPECT_FALSE(row.get("body")->error()->empty());
}

TEST_F(FanoutTest, PostEachErrorStatusCountsAndReportsItsDetail) {
  InstanceInfo a = add("a", 1, replying(500, "{\"detail\":\"broken\"}"));
  InstanceInfo b = add("b", 2, replying(404, "{\"detail\":7}"));
  CliError e = thrown([&] {
    instances().postEach({a, b}, "/p", JSON::object(), "test run", true);
  });
  EXPECT_EQ(e.message, "vorn test run: 2 target(s) failed");
  EXPECT_EQ(io.err, "vorn test run [a]: broken\n");
}

TEST_F(FanoutTest, PostEachSingleTextFailureWithDetailFailsAtOnce) {
  InstanceInfo a = add("a", 1, replying(200, "{\"ok\":false,\"detail\":\"nope\"}"));
  CliError e = thrown([&] { instances().postEach({a}, "/p", JSON::object(), "nogo run", false); });
  EXPECT_EQ(e.message, "vorn nogo run: nope");
  EXPECT_EQ(e.code, 1);
  EXPECT_EQ(io.out, "{\n  \"ok\": false,\n  \"detail\": \"nope\"\n}\n");
  EXPECT_EQ(io.err, "");
}

TEST_F(FanoutTest, PostEachSingleTextFailureWithoutDetailCounts) {
  CliError e = thrown([&] {
    instances().postEach({unreachable("gone")}, "/p", JSON::object(), "nogo run", false);
  });
  EXPECT_EQ(e.message, "vorn nogo run: 1 target(s) failed");
  JSON printed = JSON::parse(io.out);
  EXPECT_TRUE(printed.error());
}

TEST_F(FanoutTest, PostEachMissingOkIsSuccess) {
  InstanceInfo a = add("a", 1, replying(200, "{\"detail\":\"fine\"}"));
  InstanceInfo b = add("b", 2, replying(204, "null"));
  InstanceInfo c = add("c", 3, replying(200, "{\"ok\":0}"));
  instances().postEach({a, b, c}, "/p", JSON::object(), "nogo run", false);
  EXPECT_EQ(io.err, "");
}

TEST_F(FanoutTest, PostEachNoTargetsPrintsAnEmptyList) {
  instances().postEach({}, "/p", JSON::object(), "nogo run", false);
  EXPECT_EQ(io.out, "{\n  \"results\": []\n}\n");
}

TEST_F(FanoutTest, PostEachManySlowTargetsOverlap) {
  // Each reply waits until all targets have been asked: a sequential loop would never finish
  // (the replies would time out and fail).
  constexpr int n = 6;
  auto waiting = std::make_shared<std::atomic<int>>(0);
  std::vector<InstanceInfo> targets;
  for (int i = 0; i < n; ++i) {
    targets.push_back(add("i" + std::to_string(i), i + 1, [waiting](const SeenRequest&) {
      ++*waiting;
      auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
      while (waiting->load() < n && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
      return FakeReply{waiting->load() >= n ? 200 : 503, "{}"};
    }));
  }
  instances().postEach(targets, "/p", JSON::object(), "nogo run", false);
  EXPECT_EQ(waiting->load(), n);
}

TEST_F(FanoutTest, ReadEachWithoutInstances) {
  CliError e =
      thrown([&] { instances().readEach("GET", "/health", nullptr, Flags{}, "instance health"); });
  EXPECT_EQ(e.message, "vorn instance health: no running instances");
  EXPECT_EQ(e.code, 1);
}

TEST_F(FanoutTest, ReadEachOneInstancePrintsTheBody) {
  add("a", 1, replying(200, "{\"ok\":true}"));
  instances().readEach("GET", "/health", nullptr, Flags{}, "instance health");
  EXPECT_EQ(io.out, "{\n  \"ok\": true\n}\n");
  auto seen = servers[0]->requests();
  ASSERT_EQ(seen.size(), 2u);  // the scan's probe, then the read
  EXPECT_EQ(seen[1].method, "GET");
  EXPECT_EQ(seen[1].path, "/health");
}

TEST_F(FanoutTest, ReadEachSendsTheMethodAndBody) {
  add("a", 1, replying(200, "[]"));
  JSON body = JSON::object({{"q", JSON("x")}});
  instances().readEach("POST", "/search", &body, Flags{}, "search run");
  auto seen = servers[0]->requests();
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[1].method, "POST");
  EXPECT_EQ(seen[1].body, "{\"q\":\"x\"}");
  EXPECT_EQ(io.out, "[]\n");
}

TEST_F(FanoutTest, ReadEachOneInstanceErrorStatusFailsQuietly) {
  add("a", 1, replying(503, "{\"error\":\"not ready\"}"));
  CliError e =
      thrown([&] { instances().readEach("GET", "/health", nullptr, Flags{}, "instance health"); });
  EXPECT_EQ(e.message, "");
  EXPECT_EQ(e.code, 1);
  EXPECT_EQ(io.out, "{\n  \"error\": \"not ready\"\n}\n");
}

TEST_F(FanoutTest, ReadEachOneInstanceTransportFailureKeepsItsDescription) {
  add("a", 1, [](const SeenRequest&) { return FakeReply{0, "", true}; });
  CliError e =
      thrown([&] { instances().readEach("GET", "/health", nullptr, Flags{}, "instance health"); });
  EXPECT_FALSE(e.message.empty());
  EXPECT_EQ(e.message.rfind("vorn instance health", 0), std::string::npos);
  EXPECT_EQ(e.code, 1);
  EXPECT_EQ(io.out, "");
}

TEST_F(FanoutTest, ReadEachSeveralInstancesAlwaysSucceeds) {
  add("b", 2, [](const SeenRequest&) { return FakeReply{0, "", true}; });
  add("a", 1, replying(200, "{\"up\":true}"));
  add("c", 3, replying(500, "{\"error\":\"x\"}"));
  instances().readEach("GET", "/health", nullptr, Flags{}, "instance health");
  JSON out = JSON::parse(io.out);
  const auto& rows = out.get("results")->list();
  ASSERT_EQ(rows.size(), 3u);
  EXPECT_EQ(*rows[0].get("id")->string(), "a");
  EXPECT_TRUE(rows[0].get("ok")->isTrue());
  EXPECT_EQ(*rows[0].get("body"), JSON::object({{"up", JSON(true)}}));
  EXPECT_EQ(*rows[1].get("id")->string(), "b");
  EXPECT_FALSE(rows[1].get("ok")->isTrue());
  EXPECT_TRUE(rows[1].get("error")->string());
  EXPECT_FALSE(rows[1].get("body"));
  EXPECT_EQ(*rows[2].get("id")->string(), "c");
  EXPECT_EQ(*rows[2].get("ok"), JSON(false));
  EXPECT_TRUE(rows[2].get("body"));
}

// The rows are written from the reply text; they must read exactly as the values would print.
TEST_F(FanoutTest, ReadEachRowsPrintAsTheirValuesWould) {
  add("a", 1, replying(200, "{\"tree\":[{\"name\":\"x\",\"children\":[]},{\"n\":1.5}],\"e\":{}}"));
  add("b", 2, [](const SeenRequest&) { return FakeReply{0, "", true}; });
  add("c", 3, replying(404, "no such thing"));
  add("d", 4, replying(200, "[]"));
  add("e\"q", 5, replying(201, "\"caf\u00e9\""));
  instances().readEach("GET", "/health", nullptr, Flags{}, "instance health");

  const JSON parsed = JSON::parse(io.out);
  const JSON::Array& printed = parsed.get("results")->list();
  ASSERT_EQ(printed.size(), 5u);
  auto row = [](const char* id, bool ok, JSON body) {
    return JSON::object({{"id", JSON(id)}, {"ok", JSON(ok)}, {"body", std::move(body)}});
  };
  JSON::Array rows = {
      row("a", true,
          JSON::parse("{\"tree\":[{\"name\":\"x\",\"children\":[]},{\"n\":1.5}],\"e\":{}}")),
      JSON::object({{"id", JSON("b")}, {"ok", JSON(false)}, {"error", *printed[1].get("error")}}),
      row("c", false, JSON::object({{"error", JSON("HTTP 404: not JSON (no such thing)")}})),
      row("d", true, JSON::array()),
      row("e\"q", true, JSON("caf\u00e9")),
  };
  EXPECT_EQ(io.out, JSON::object({{"results", JSON(std::move(rows))}}).serialized(2) + "\n");
}

TEST_F(FanoutTest, ReadEachJsonWrapsOneInstance) {
  add("a", 1, replying(200, "{\"ok\":true}"));
  Flags f;
  f.json = true;
  instances().readEach("GET", "/health", nullptr, f, "instance health");
  EXPECT_EQ(io.out,
            "{\n  \"results\": [\n    {\n      \"id\": \"a\",\n      \"ok\": true,\n      "
            "\"body\": {\n        \"ok\": true\n      }\n    }\n  ]\n}\n");
}

TEST_F(FanoutTest, ReadEachFollowsTheSelector) {
  add("abc", 1, replying(200, "{\"n\":1}"));
  add("xyz", 2, replying(200, "{\"n\":2}"));
  Flags f;
  f.instance = "xy";
  instances().readEach("GET", "/health", nullptr, f, "instance health");
  EXPECT_EQ(io.out, "{\n  \"n\": 2\n}\n");

  f.instance = "nothing";
  EXPECT_EQ(thrown([&] {
              instances().readEach("GET", "/health", nullptr, f, "instance health");
            }).message,
            "no instance matches nothing");
}

TEST_F(FanoutTest, ReadEachUsesTheCheckoutsOwnApp) {
  std::string checkout = tmp / "co";
  testing::makeCheckout(checkout);
  io.ctx.cwd = checkout;
  add("other", 1, replying(200, "{\"n\":1}"));
  InstanceInfo mine = add("mine", 2, replying(200, "{\"n\":2}"));
  testing::writeFile(checkout + "/.cache/vorn/dev-app.json",
                     "{\"pid\":2,\"socketPath\":" + JSON(mine.socketPath).serialized(0) + "}");
  instances().readEach("GET", "/health", nullptr, Flags{}, "instance health");
  EXPECT_EQ(io.out, "{\n  \"n\": 2\n}\n");
}

}  // namespace
}  // namespace vorn

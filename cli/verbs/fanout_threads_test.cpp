// Every parallel path of the CLI (parallelMap, postEach, inspect, version) against 32 fake
// instances at once, some slow and some failing: refused, closed without a reply, a bad reply.
// These tests also run under ThreadSanitizer (the unit-thread-sanitized test), where any
// report fails the run; here they check that each row still gets its own outcome.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "core/test_support.h"
#include "instances/instances.h"
#include "instances/parallel.h"
#include "instances/test_instances.h"
#include "transport/transport.h"
#include "verbs/verbs.h"

namespace vorn {
namespace {

using testing::FakeInstanceServer;
using testing::FakeReply;
using testing::SleepingChild;
using SeenRequest = testing::SeenRequest;

// What an instance does with everything but the scan's GET /instance.
enum class Kind { fast, slow, refused, closed, badReply, notJSON };

Kind kindOf(size_t i) {
  static const Kind pattern[] = {Kind::fast,   Kind::slow,     Kind::fast, Kind::refused,
                                 Kind::closed, Kind::badReply, Kind::fast, Kind::notJSON};
  return pattern[i % std::size(pattern)];
}

bool fails(Kind kind) {
  return kind != Kind::fast && kind != Kind::slow;
}

// The error text a failing kind leaves in a folded reply (getJSON), given its socket.
std::string errorOf(Kind kind, const std::string& sock) {
  switch (kind) {
    case Kind::refused:
      return "connect " + sock + ": Connection refused";
    case Kind::closed:
      return "malformed HTTP reply";
    case Kind::badReply:
      return "malformed chunk size";
    case Kind::notJSON:
      return "HTTP 200: not JSON (<html>)";
    default:
      return "";
  }
}

FakeReply replyOf(Kind kind, const SeenRequest& request) {
  switch (kind) {
    case Kind::slow:
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
      break;
    case Kind::closed:
      return FakeReply{0, "", true};
    case Kind::badReply:
      return FakeReply{200, "", false, false,
                       "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n{}\r\n"};
    case Kind::notJSON:
      return FakeReply{200, "<html>"};
    default:
      break;
  }
  return FakeReply{200, "{\"ok\":true,\"protocol\":1,\"path\":\"" + request.path + "\"}"};
}

struct FanoutThreadsTest : ::testing::Test {
  static constexpr size_t count = 32;
  testing::TempDir tmp;
  CapturedContext io;
  std::vector<std::unique_ptr<SleepingChild>> children;
  std::vector<std::unique_ptr<FakeInstanceServer>> servers;
  std::vector<InstanceInfo> live;  // in pid order, as the scan gives them

  FanoutThreadsTest() {
    io.ctx.env["XDG_RUNTIME_DIR"] = tmp.path();
    io.ctx.cwd = tmp.path();
    // Every process first, then every server thread: no fork while threads run.
    for (size_t i = 0; i < count; ++i)
      children.push_back(std::make_unique<SleepingChild>());
    for (size_t i = 0; i < count; ++i) {
      pid_t pid = children[i]->pid();
      std::string sock = tmp / ("vorn/" + std::to_string(pid) + "/fs.sock");
      std::string record = testing::record("i" + std::to_string(i), pid, sock).json().serialized(0);
      Kind kind = kindOf(i);
      servers.push_back(
          std::make_unique<FakeInstanceServer>(sock, [record, kind](const SeenRequest& request) {
            // A refused instance answers the one scan, then stops listening.
            if (request.path == "/instance") {
              return FakeReply{200, record, false, kind == Kind::refused};
            }
            return replyOf(kind, request);
          }));
    }
  }

  Instances instances() { return Instances{io.ctx}; }

  // The instances after the one scan that a test makes.
  const std::vector<InstanceInfo>& scanOnce() {
    live = instances().scan(false).live;
    EXPECT_EQ(live.size(), count);
    return live;
  }

  Kind kindOfInstance(const InstanceInfo& instance) {
    return kindOf(std::stoul(instance.id.substr(1)));
  }

  // The instances' numbers in the order a scan lists them.
  std::vector<size_t> inPidOrder() const {
    std::vector<size_t> order(count);
    for (size_t i = 0; i < count; ++i)
      order[i] = i;
    std::sort(order.begin(), order.end(),
              [&](size_t a, size_t b) { return children[a]->pid() < children[b]->pid(); });
    return order;
  }
};

TEST_F(FanoutThreadsTest, ParallelMapKeepsEachRowsOwnOutcome) {
  scanOnce();
  std::vector<JSON> replies = parallelMap(
      live, [](const InstanceInfo& i) { return Transport::getJSON(i.socketPath, "/health"); });
  ASSERT_EQ(replies.size(), count);
  for (size_t i = 0; i < count; ++i) {
    Kind kind = kindOfInstance(live[i]);
    if (fails(kind)) {
      EXPECT_EQ(replies[i].error(), errorOf(kind, live[i].socketPath)) << live[i].id;
    } else {
      EXPECT_EQ(*replies[i].get("path"), JSON("/health")) << live[i].id;
    }
  }
}

TEST_F(FanoutThreadsTest, PostEachCountsTheFailedTargets) {
  scanOnce();
  // A reply that is not JSON still has status 200 and no "ok": false, so it counts as done;
  // the targets that gave no reply at all fail.
  auto noReply = [](Kind kind) { return fails(kind) && kind != Kind::notJSON; };
  size_t failing = 0;
  for (const auto& instance : live)
    failing += noReply(kindOfInstance(instance));
  CliError error =
      thrown([&] { instances().postEach(live, "/nogo", JSON::object(), "nogo run", false); });
  EXPECT_EQ(error.message, "vorn nogo run: " + std::to_string(failing) + " target(s) failed");

  JSON out = JSON::parse(io.out);
  const JSON::Array& rows = out.get("results")->list();
  ASSERT_EQ(rows.size(), count);
  for (size_t i = 0; i < count; ++i) {
    Kind kind = kindOfInstance(live[i]);
    EXPECT_EQ(*rows[i].get("id"), JSON(live[i].id));
    EXPECT_EQ(*rows[i].get("status")->integer(), noReply(kind) ? 0 : 200) << live[i].id;
    if (fails(kind)) {
      EXPECT_EQ(rows[i].get("body")->error(), errorOf(kind, live[i].socketPath)) << live[i].id;
    } else {
      EXPECT_EQ(*rows[i].get("body")->get("path"), JSON("/nogo")) << live[i].id;
    }
  }
}

TEST_F(FanoutThreadsTest, InspectAsksEveryInstanceEverythingAtOnce) {
  Instances registry = instances();
  instanceVerbs().at("inspect")(Flags{}, registry);
  JSON entries = JSON::parse(io.out);
  ASSERT_EQ(entries.list().size(), count);
  std::vector<size_t> order = inPidOrder();
  for (size_t n = 0; n < count; ++n) {
    const JSON& entry = entries.list()[n];
    const std::string id(*entry.get("id")->string());
    EXPECT_EQ(id, "i" + std::to_string(order[n]));
    Kind kind = kindOf(order[n]);
    const std::string sock(*entry.get("sock")->string());
    if (fails(kind)) {
      EXPECT_EQ(entry.get("health")->error(), errorOf(kind, sock)) << id;
      EXPECT_EQ(entry.get("language")->error(), errorOf(kind, sock)) << id;
    } else {
      EXPECT_EQ(*entry.get("health")->get("path"), JSON("/health")) << id;
      EXPECT_EQ(*entry.get("workspace")->get("path"), JSON("/workspace")) << id;
      EXPECT_EQ(*entry.get("language")->get("path"), JSON("/language/status")) << id;
    }
  }
}

TEST_F(FanoutThreadsTest, VersionShowsEachProtocolOrUnknown) {
  Instances registry = instances();
  printVersion(Flags{}, registry);
  std::string expected = std::string("vorn ") + cliVersion + "\n";
  for (size_t i : inPidOrder()) {
    expected += "instance i" + std::to_string(i) + ": bridge protocol " +
                (fails(kindOf(i)) ? "unknown" : "1") + "\n";
  }
  EXPECT_EQ(io.out, expected);
}

}  // namespace
}  // namespace vorn

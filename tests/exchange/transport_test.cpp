// The transports: what both promise, and what each does with what is broken.
#include "transport.hpp"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "child_process.hpp"
#include "engine.hpp"
#include "exchangetest.hpp"
#include "pipe_transport.hpp"
#include "redis_server.hpp"
#include "redis_transport.hpp"
#include "redis_url.hpp"

namespace {

using exchange::Arguments;
using exchange::ChildProcess;
using exchange::Delivery;
using exchange::Engine;
using exchange::Message;
using exchange::Milliseconds;
using exchange::PacketSocket;
using exchange::RedisAddress;
using exchange::Stream;
using exchange::Transport;
using exchange::TransportError;

constexpr Milliseconds kLong{20000};  // for what must come
constexpr Milliseconds kClaimAfter{300};

bool isThereARedisServer() {
  return exchange::hasRedis() && std::system("redis-server --version >/dev/null 2>&1") == 0;
}

// Each test runs over pipes and over a private server. Other processes report what they saw in the
// stream of reports, for the coordinator has to serve them meanwhile.
class TransportTest : public testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    if (GetParam() && !isThereARedisServer()) GTEST_SKIP() << "no redis-server";
    Arguments arguments;
    arguments.usesRedis = GetParam();
    arguments.name = "test";
    arguments.transport.claimAfter = kClaimAfter;
    arguments.transport.patience = kLong;
    engine_ =
        exchange::makeEngine(arguments, refhost::Library::besideProgram().parent_path().string());
  }

  Transport &own() { return engine_->transport(); }

  // Runs `use` in another process, and ends there with 1 for what it throws.
  ChildProcess start(const std::function<void(Transport &)> &use) {
    const exchange::TransportMaker connect = engine_->connect("consumer");
    return ChildProcess::fork([&] {
      try {
        use(*connect());
        return 0;
      } catch (const std::exception &error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
      }
    });
  }

  // The next report, which must come.
  Message report() {
    const std::optional<Delivery> delivery = own().take(Stream::reports, kLong);
    if (!delivery) {
      ADD_FAILURE() << "no report has come";
      return {};
    }
    own().acknowledge(Stream::reports, delivery->id);
    return delivery->message;
  }

  std::unique_ptr<Engine> engine_;
};

// What a taker reports about a delivery.
Message seen(const std::optional<Delivery> &delivery) {
  if (!delivery) return {{"seen", "nothing"}};
  Message message = delivery->message;
  message["id"] = delivery->id;
  message["deliveries"] = std::to_string(delivery->deliveries);
  return message;
}

TEST_P(TransportTest, CarriesAnyBytesBothWaysInOrder) {
  std::string bytes;
  for (int i = 0; i < 256; ++i) bytes += static_cast<char>(i);
  std::string large;
  while (large.size() < 3000000) large += bytes;
  own().publish(Stream::jobs, {{"a", bytes}, {"empty", ""}, {bytes, "x"}});
  own().publish(Stream::jobs, {{"b", large}});
  const ChildProcess process = start([](Transport &transport) {
    for (int i = 0; i < 2; ++i) {
      const std::optional<Delivery> delivery = transport.take(Stream::jobs, kLong);
      transport.publish(Stream::reports, delivery->message);
    }
  });
  EXPECT_EQ(report(), (Message{{"a", bytes}, {"empty", ""}, {bytes, "x"}}));
  EXPECT_EQ(report(), (Message{{"b", large}}));
}

TEST_P(TransportTest, WaitsForWhatComesLaterAndNotForEver) {
  EXPECT_FALSE(own().take(Stream::results, Milliseconds(30)).has_value());
  const ChildProcess process = start([](Transport &transport) {
    transport.publish(Stream::reports, seen(transport.take(Stream::jobs, Milliseconds(30))));
    transport.publish(Stream::reports, seen(transport.take(Stream::jobs, kLong)));
  });
  EXPECT_EQ(report().at("seen"), "nothing");
  own().publish(Stream::jobs, {{"job", "1"}});
  const Message later = report();
  EXPECT_EQ(later.at("job"), "1");
  EXPECT_EQ(later.at("deliveries"), "1");
}

TEST_P(TransportTest, GivesEachMessageToOneConsumer) {
  constexpr int kMessages = 40;
  for (int i = 0; i < kMessages; ++i) own().publish(Stream::jobs, {{"job", std::to_string(i)}});
  const auto consume = [](Transport &transport) {
    while (const auto delivery = transport.take(Stream::jobs, Milliseconds(50))) {
      transport.publish(Stream::reports, delivery->message);
      transport.acknowledge(Stream::jobs, delivery->id);
    }
  };
  const ChildProcess one = start(consume);
  const ChildProcess other = start(consume);
  std::set<std::string> jobs;
  for (int i = 0; i < kMessages; ++i) EXPECT_TRUE(jobs.insert(report().at("job")).second);
  EXPECT_FALSE(own().take(Stream::reports, Milliseconds(100)).has_value());
  EXPECT_EQ(own().length(Stream::jobs), 0U);
}

TEST_P(TransportTest, GivesWhatADeadProcessHeldToAnother) {
  own().publish(Stream::jobs, {{"job", "1"}});
  ChildProcess victim = start([](Transport &transport) {
    transport.publish(Stream::reports, seen(transport.take(Stream::jobs, kLong)));
    pause();
  });
  EXPECT_EQ(report().at("deliveries"), "1");
  victim.signal(SIGKILL);
  ASSERT_TRUE(victim.waitFor(kLong));
  EXPECT_EQ(own().length(Stream::jobs), 1U);
  const ChildProcess heir = start([](Transport &transport) {
    const std::optional<Delivery> delivery = transport.take(Stream::jobs, kLong);
    transport.publish(Stream::reports, seen(delivery));
    transport.acknowledge(Stream::jobs, delivery->id);
    transport.publish(Stream::reports, {{"done", "yes"}});
  });
  const Message again = report();
  EXPECT_EQ(again.at("job"), "1");
  EXPECT_EQ(again.at("deliveries"), "2");
  report();
  EXPECT_EQ(own().length(Stream::jobs), 0U);
}

TEST_P(TransportTest, GivesWhatIsHeldForTooLongToAnother) {
  own().publish(Stream::jobs, {{"job", "1"}});
  const ChildProcess slow = start([](Transport &transport) {
    transport.publish(Stream::reports, seen(transport.take(Stream::jobs, kLong)));
    pause();
  });
  EXPECT_EQ(report().at("deliveries"), "1");
  const ChildProcess other = start([](Transport &transport) {
    transport.publish(Stream::reports, seen(transport.take(Stream::jobs, kLong)));
  });
  EXPECT_EQ(report().at("deliveries"), "2");
}

TEST_P(TransportTest, HandsNothingOutThatIsAcknowledged) {
  own().publish(Stream::jobs, {{"job", "1"}});
  const ChildProcess process = start([](Transport &transport) {
    const std::optional<Delivery> delivery = transport.take(Stream::jobs, kLong);
    transport.acknowledge(Stream::jobs, delivery->id);
    transport.acknowledge(Stream::jobs, delivery->id);  // also twice
    transport.publish(Stream::reports, seen(transport.take(Stream::jobs, 3 * kClaimAfter)));
  });
  EXPECT_EQ(report().at("seen"), "nothing");
}

TEST_P(TransportTest, TellsEverybodyOfTheEnd) {
  const ChildProcess process = start([](Transport &transport) {
    transport.publish(Stream::reports, {{"ended", transport.hasEnded() ? "yes" : "no"}});
    transport.take(Stream::jobs, kLong);
    transport.publish(Stream::reports, {{"ended", transport.hasEnded() ? "yes" : "no"}});
  });
  EXPECT_EQ(report().at("ended"), "no");
  own().end();
  own().publish(Stream::jobs, {{"job", "1"}});
  EXPECT_EQ(report().at("ended"), "yes");
  EXPECT_TRUE(own().hasEnded());
}

INSTANTIATE_TEST_SUITE_P(Exchange, TransportTest, testing::Bool(),
                         [](const auto &test) { return test.param ? "Redis" : "Pipes"; });

TEST(RedisTransportTest, SurvivesTheEndOfTheServer) {
  if (!isThereARedisServer()) GTEST_SKIP() << "no redis-server";
  signal(SIGPIPE, SIG_IGN);  // as the program does
  exchange::RedisServer server(refhost::Library::besideProgram().parent_path());
  const std::unique_ptr<Transport> made =
      exchange::makeRedisTransport({server.address(), "test", "consumer"}, {kClaimAfter, kLong});
  Transport &transport = *made;
  for (int i = 0; i < 3; ++i) transport.publish(Stream::jobs, {{"job", std::to_string(i)}});
  const std::optional<Delivery> first = transport.take(Stream::jobs, kLong);
  transport.acknowledge(Stream::jobs, first->id);
  EXPECT_TRUE(transport.take(Stream::jobs, kLong).has_value());
  server.stop(SIGTERM);
  server.start();
  EXPECT_EQ(transport.length(Stream::jobs), 2U);
  std::map<std::string, int> deliveries;  // by job
  for (int i = 0; i < 2; ++i) {
    const std::optional<Delivery> delivery = transport.take(Stream::jobs, kLong);
    ASSERT_TRUE(delivery.has_value());
    deliveries[delivery->message.at("job")] = delivery->deliveries;
    transport.acknowledge(Stream::jobs, delivery->id);
  }
  EXPECT_EQ(deliveries, (std::map<std::string, int>{{"1", 2}, {"2", 1}}));
}

// What reaches the coordinator through a socket is checked, and ends that connection only.
class HostileConnection : public testing::Test {
 protected:
  HostileConnection() : ends_(PacketSocket::makePair()) {
    broker_.serveAt(std::move(ends_.first));
    broker_.publish(Stream::jobs, {{"job", "1"}});
  }

  void serve() { broker_.take(Stream::reports, Milliseconds(60)); }

  void sendPacket(const std::string &bytes) {
    ASSERT_EQ(send(ends_.second.descriptor(), bytes.data(), bytes.size(), 0),
              static_cast<ssize_t>(bytes.size()));
  }
  static std::string lengths(const std::vector<std::uint32_t> &numbers) {
    return {reinterpret_cast<const char *>(numbers.data()), numbers.size() * 4};
  }

  void expectCutOff() {
    serve();
    EXPECT_THROW(
        {
          ends_.second.receive();
          ends_.second.send({"ended"});
        },
        TransportError);
    EXPECT_EQ(broker_.take(Stream::jobs, Milliseconds(0))->message.at("job"), "1");
  }

  exchange::PipeBroker broker_{{Milliseconds(1000), Milliseconds(1000)}};
  std::pair<PacketSocket, PacketSocket> ends_;
};

TEST_F(HostileConnection, IsServedWhileItAsksRightly) {
  ends_.second.send({"ended"});
  serve();
  EXPECT_EQ(ends_.second.receive(), exchange::Words{"no"});
  ends_.second.send({"take", "jobs", "0"});
  serve();
  const exchange::Words answer = ends_.second.receive().value();
  EXPECT_EQ(answer, (exchange::Words{"entry", answer[1], "1", "job", "1"}));
}

TEST_F(HostileConnection, IsCutOffForPacketsThatAreNoList) {
  sendPacket("abc");
  expectCutOff();
}

TEST_F(HostileConnection, IsCutOffForMoreBytesThanItHasTold) {
  sendPacket(lengths({3}));
  sendPacket("four");
  expectCutOff();
}

TEST_F(HostileConnection, IsCutOffForListsThatAreTooLong) {
  sendPacket(lengths({0xFFFFFFFF, 0xFFFFFFFF}));
  expectCutOff();
}

TEST_F(HostileConnection, IsCutOffForTooManyWords) {
  sendPacket(lengths(std::vector<std::uint32_t>(65, 1)));
  expectCutOff();
}

TEST_F(HostileConnection, IsCutOffForRequestsThatThereAreNot) {
  const exchange::Words requests[] = {{"steal", "jobs"},
                                      {"take"},
                                      {"take", "jobs"},
                                      {"take", "jobs", "x"},
                                      {"take", "jobs", "-1"},
                                      {"take", "nothing", "1"},
                                      {"publish", "jobs", "odd"},
                                      {"acknowledge", "jobs"},
                                      {"publish"},
                                      {""}};
  for (const exchange::Words &request : requests) {
    auto [ours, theirs] = PacketSocket::makePair();
    broker_.serveAt(std::move(ours));
    theirs.send(request);
    serve();
    EXPECT_THROW(theirs.receive(), TransportError) << request[0];
  }
  EXPECT_EQ(broker_.length(Stream::jobs), 1U);
}

// Long before what it holds would be claimed for being held too long.
TEST_F(HostileConnection, LeavesWhatItHeldToOthersAtOnceWhenItCloses) {
  exchange::PipeBroker broker({Milliseconds(3600000), Milliseconds(1000)});
  broker.publish(Stream::jobs, {{"job", "1"}});
  {
    auto [ours, theirs] = PacketSocket::makePair();
    broker.serveAt(std::move(ours));
    theirs.send({"take", "jobs", "0"});
    broker.take(Stream::reports, Milliseconds(60));
    EXPECT_EQ(theirs.receive().value()[0], "entry");
    EXPECT_FALSE(broker.take(Stream::jobs, Milliseconds(0)).has_value());
  }
  broker.take(Stream::reports, Milliseconds(60));
  EXPECT_EQ(broker.take(Stream::jobs, Milliseconds(0))->deliveries, 2);
}

// A process that stops in the middle of a message holds nobody up.
TEST_F(HostileConnection, MayLeaveAMessageUnfinished) {
  sendPacket(lengths({7, 9}));
  sendPacket("publ");
  auto [ours, theirs] = PacketSocket::makePair();
  broker_.serveAt(std::move(ours));
  theirs.send({"take", "jobs", "0"});
  serve();
  EXPECT_EQ(theirs.receive().value()[0], "entry");
}

TEST(RedisUrl, NamesServers) {
  unsetenv("REDISCLI_AUTH");
  RedisAddress address = exchange::parseRedisUrl("redis://example.org");
  EXPECT_EQ(address.host, "example.org");
  EXPECT_EQ(address.port, 6379);
  EXPECT_EQ(address.database, 0);
  EXPECT_EQ(address.password, "");
  EXPECT_EQ(address.shown(), "redis://example.org:6379");
  address = exchange::parseRedisUrl("redis://joe:p%40ss%2f@[::1]:7000/3");
  EXPECT_EQ(address.host, "::1");
  EXPECT_EQ(address.port, 7000);
  EXPECT_EQ(address.database, 3);
  EXPECT_EQ(address.user, "joe");
  EXPECT_EQ(address.password, "p@ss/");
  EXPECT_EQ(address.shown(), "redis://[::1]:7000/3");
  address = exchange::parseRedisUrl("unix://:secret@/run/redis.sock");
  EXPECT_EQ(address.socket, "/run/redis.sock");
  EXPECT_EQ(address.user, "");
  EXPECT_EQ(address.password, "secret");
  EXPECT_EQ(address.shown(), "unix:///run/redis.sock");
  setenv("REDISCLI_AUTH", "other", 1);
  EXPECT_EQ(exchange::parseRedisUrl("redis://:secret@host").password, "secret");
  EXPECT_EQ(exchange::parseRedisUrl("redis://host").password, "other");
  unsetenv("REDISCLI_AUTH");
}

TEST(RedisUrl, RefusesWhatIsNone) {
  for (const char *url : {"", "redis", "http://host", "redis://", "redis://host:", "redis://host:x",
                          "redis://host:65536", "redis://host/x", "redis://host/-1", "unix://",
                          "unix://relative", "redis://user@host", "redis://:%4@host",
                          "redis://:%zz@host", "redis://[::1", "redis://::1]:7"}) {
    EXPECT_THROW(exchange::parseRedisUrl(url), catalog::InputError) << url;
  }
}

}  // namespace

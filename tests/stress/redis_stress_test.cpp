// Sixteen threads share one RedisClient for a bounded time while the real
// redis-server is restarted twice under them (once stopped with SIGTERM,
// once killed with SIGKILL). Every call is timed and classified: a failure
// must be a clean false or null reply and must overlap one of the two
// outages; every call outside the outages, and so every call after the last
// restart, succeeds; what a thread reads back is what it wrote.
//
// The run lasts $VELMORA_STRESS_SECONDS seconds (default 20), e.g.
//   VELMORA_STRESS_SECONDS=60 ctest --test-dir BUILD -R '^redis_stress_test$'
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include <gtest/gtest.h>

#include <velmora/backend.h>

#include "support/log_capture.h"
#include "support/redis_test_util.h"
#include "support/server_process.h"

namespace velmora {
namespace {

using namespace redis_test;  // NOLINT(build/namespaces)

constexpr int kThreads = 16;

int StressSeconds() {
  const char* text = std::getenv("VELMORA_STRESS_SECONDS");
  const int seconds = text != nullptr ? std::atoi(text) : 20;
  return seconds >= 3 ? seconds : 3;
}

long long Now() {
  return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now().time_since_epoch())
      .count();
}

struct Span {
  long long begin;  // Microseconds of the steady clock.
  long long end;
  bool Overlaps(const Span& other) const { return begin <= other.end && end >= other.begin; }
};

// What one thread saw.
struct Tally {
  long long calls = 0;
  long long failures = 0;
  long long wrong = 0;  // successes whose content was not what was written
  std::vector<Span> failed;
  long long last_ok = -1;     // last value of "<me>:last" that Set confirmed
  long long last_tried = -1;  // last value handed to Set
  std::string first_wrong;    // the first wrong content, for the report
};

TEST(RedisStressTest, SixteenThreadsRideOutTwoServerRestarts) {
  const int seconds = StressSeconds();
  ServerProcess server(RedisServerCommand(), [] { return test::CanConnectTcp(kHost, kPort); });
  ASSERT_TRUE(server.Start());
  RedisClient client(kHost, kPort, kTimeoutMs);
  LogCapture capture;

  std::atomic<bool> stop{false};
  std::vector<Tally> tallies(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      Tally& tally = tallies[t];
      const std::string me = "t" + std::to_string(t);
      for (long long i = 0; !stop; ++i) {
        const long long begin = Now();
        bool ok = false;
        switch (i % 4) {
          case 0:
            tally.last_tried = i;
            ok = client.Set(me + ":last", std::to_string(i));
            if (ok) tally.last_ok = i;
            break;
          case 1: {
            Map values;
            ok = client.MGet({me + ":last", me + ":count"}, values, true);
            // Only this thread writes its keys. A restart empties the store,
            // and a Set that failed may still have reached the server.
            const std::string& last = values[me + ":last"];
            if (ok && !(last.empty() || last == std::to_string(tally.last_ok) ||
                        last == std::to_string(tally.last_tried))) {
              if (tally.wrong++ == 0) tally.first_wrong = me + ":last=" + last;
            }
            break;
          }
          case 2: {
            ReplyPtr r(client.ExecuteCmd("INCR", {me + ":count"}));
            ok = r != nullptr;
            if (ok && !(r->type == REDIS_REPLY_INTEGER && r->integer >= 1)) {
              if (tally.wrong++ == 0) tally.first_wrong = me + ":count reply type";
            }
            break;
          }
          default:
            if (i % 100 == 3) {
              // Now and then a whole pattern walk over the small keyspace.
              ok = client.Set(me + ":tmp:" + std::to_string(i), "x") &&
                   client.UnlinkByPattern(me + ":tmp:*");
            } else {
              ok = client.Set(me + ":tmp:" + std::to_string(i % 7), "y");
            }
            break;
        }
        ++tally.calls;
        if (!ok) {
          ++tally.failures;
          tally.failed.push_back(Span{begin, Now()});
        }
      }
    });
  }

  // Two outages, a third and two thirds into the run: SIGTERM, then SIGKILL.
  std::vector<Span> outages;
  const auto start = Clock::now();
  for (int k = 1; k <= 2; ++k) {
    std::this_thread::sleep_until(start + std::chrono::milliseconds(seconds * 1000 * k / 3));
    Span outage{Now(), 0};
    if (k == 1) {
      server.Stop();
    } else {
      ASSERT_EQ(kill(server.pid(), SIGKILL), 0);
      server.Stop();  // reaps it
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    ASSERT_TRUE(server.Start());
    outage.end = Now();
    outages.push_back(outage);
  }
  std::this_thread::sleep_until(start + std::chrono::seconds(seconds));
  stop = true;
  for (auto& thread : threads) thread.join();

  long long calls = 0, failures = 0, wrong = 0, outside = 0;
  std::vector<long long> per_outage(outages.size(), 0);
  for (const Tally& tally : tallies) {
    calls += tally.calls;
    failures += tally.failures;
    wrong += tally.wrong;
    EXPECT_EQ(tally.wrong, 0) << tally.first_wrong;
    for (const Span& f : tally.failed) {
      bool in_outage = false;
      for (size_t k = 0; k < outages.size(); ++k) {
        if (f.Overlaps(outages[k])) {
          ++per_outage[k];
          in_outage = true;
        }
      }
      if (!in_outage) ++outside;
    }
  }
  std::printf(
      "redis stress: %d s, %d threads, %lld calls, %lld failed (%lld in outage 1, %lld "
      "in outage 2), %lld failed outside the outages\n",
      seconds, kThreads, calls, failures, per_outage[0], per_outage[1], outside);
  ::testing::Test::RecordProperty("calls", std::to_string(calls));
  ::testing::Test::RecordProperty("failures", std::to_string(failures));

  EXPECT_GT(calls, 1000);
  EXPECT_EQ(outside, 0) << "calls failed while the server was up";
  // Both outages really hit the threads.
  EXPECT_GT(per_outage[0], 0);
  EXPECT_GT(per_outage[1], 0);
  EXPECT_EQ(wrong, 0);

  // After the last restart the server holds what the threads wrote since.
  RawRedis raw;
  ASSERT_TRUE(raw.Connect());
  for (int t = 0; t < kThreads; ++t) {
    const std::string got = raw.Get("t" + std::to_string(t) + ":last");
    EXPECT_TRUE(got == std::to_string(tallies[t].last_ok) ||
                got == std::to_string(tallies[t].last_tried))
        << "t" << t << ": " << got;
  }
  // One more call on the shared client, after everything.
  EXPECT_TRUE(client.Set("after", "1"));
  EXPECT_EQ(raw.Get("after"), "1");
  EXPECT_TRUE(capture.Records().empty()) << "RedisClient wrote to the log";
}

}  // namespace
}  // namespace velmora

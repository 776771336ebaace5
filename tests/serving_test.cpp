// The serving loop as clients see it: no client can stall, starve or exhaust the daemon.
#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/sandbox.h"

namespace tessard::test {
namespace {

using Clock = std::chrono::steady_clock;
using Bytes = std::vector<unsigned char>;

// A reply to the GET of the tests: header, counted text of 2,000 bytes.
constexpr long kReplyLength = 2006;

long ElapsedMs(Clock::time_point since) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - since).count();
}

class ServingTest : public SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    rlimit files{4096, 4096};  // for a daemon and a test with 1,100 clients
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &files), 0) << "raising the open-files limit needs root";
    // A long value makes every reply 2 KiB, so unread replies pile up quickly.
    if (!HasFatalFailure()) WriteFile("/etc/net.conf", "name " + std::string(2000, 'n') + "\n");
  }
  pid_t Serve() {
    return SandboxTest::Serve(
        "group Net { accessControl = \":1\" parser = Standardparser file = \"/etc/net.conf\"\n"
        "  param Name { mount = \"Standard{Root}{name}\" } }\n");
  }

  // Whether a new client's GET is answered within `timeout_ms`.
  static bool AnsweredWithin(int timeout_ms) {
    int fd = Connect();
    Bytes reply;
    bool answered =
        Send(fd, kGet) && ReadReply(fd, &reply, timeout_ms) == 0 && reply.size() == kReplyLength;
    close(fd);
    return answered;
  }

  static inline const Bytes kGet = GetFrame("Net.Name");
};

// Idle, half-sent and non-reading clients delay nobody; a request completed within 5 s is
// answered, one left half-sent is dropped then.
TEST_F(ServingTest, NoClientDelaysAnotherAndHalfRequestsHaveADeadline) {
  Serve();
  int idle = Connect(), late = Connect(), never = Connect(), deaf = Connect();
  Bytes head(kGet.begin(), kGet.begin() + 5);
  auto start = Clock::now();
  ASSERT_TRUE(idle >= 0 && Send(late, head) && Send(never, head));
  // 4 MiB of replies asked for and never read: far beyond what the daemon queues for a client.
  fcntl(deaf, F_SETFL, O_NONBLOCK);
  for (int i = 0; i < 2000; i++) Send(deaf, kGet);
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  auto asked = Clock::now();
  EXPECT_TRUE(AnsweredWithin(500));
  EXPECT_LT(ElapsedMs(asked), 500);
  std::this_thread::sleep_for(std::chrono::seconds(2) - (Clock::now() - start));
  ASSERT_TRUE(Send(late, {kGet.begin() + 5, kGet.end()}));
  Bytes reply;
  EXPECT_EQ(ReadReply(late, &reply), 0);
  EXPECT_EQ(ReadReply(never, &reply, 10000), -2) << "end of file after the deadline";
  EXPECT_GE(ElapsedMs(start), 4500);
  EXPECT_TRUE(log().WaitFor("Dropping client: request not complete within 5 s.", 1000));
  for (int fd : {idle, late, never, deaf}) close(fd);
}

// One thread drives both clients, so that neither is favoured by the scheduler of the test: each
// keeps many requests in flight and asks again for every answer.
TEST_F(ServingTest, TwoFloodingClientsEachGetAThirdOfTheAnswers) {
  Serve();
  pollfd clients[2] = {{Connect(), POLLIN, 0}, {Connect(), POLLIN, 0}};
  long bytes[2] = {0, 0};
  for (int i = 0; i < 128; i++) Send(clients[i % 2].fd, kGet);
  for (auto start = Clock::now(); ElapsedMs(start) < 2000 && poll(clients, 2, 1000) > 0;) {
    for (int i = 0; i < 2; i++) {
      unsigned char buffer[65536];
      ssize_t got = clients[i].revents & POLLIN ? read(clients[i].fd, buffer, sizeof(buffer)) : 0;
      long before = bytes[i] / kReplyLength;
      bytes[i] += got;
      for (long n = bytes[i] / kReplyLength; n > before; n--) Send(clients[i].fd, kGet);
    }
  }
  long first = bytes[0] / kReplyLength, total = first + bytes[1] / kReplyLength;
  EXPECT_GT(total, 100);
  EXPECT_TRUE(first * 3 >= total && first * 3 <= 2 * total) << first << " of " << total;
  for (pollfd& c : clients) close(c.fd);
}

TEST_F(ServingTest, ElevenHundredSimultaneousClientsAreAllAnsweredTwice) {
  Serve();
  std::vector<int> clients(1100);
  for (int& fd : clients) fd = Connect();
  for (int round = 0; round < 2; round++) {
    for (int fd : clients) ASSERT_TRUE(Send(fd, kGet));
    int answered = 0;
    Bytes reply;
    for (int fd : clients)
      answered += ReadReply(fd, &reply, 20000) == 0 && reply.size() == kReplyLength;
    EXPECT_EQ(answered, 1100) << "round " << round;
  }
  for (int fd : clients) close(fd);
}

TEST_F(ServingTest, OutOfDescriptorsTheDaemonRestsAndServesOnceClientsLeave) {
  pid_t pid = Serve();
  rlimit tight{64, 64};
  ASSERT_EQ(prlimit(pid, RLIMIT_NOFILE, &tight, nullptr), 0);
  std::vector<int> held;
  for (int i = 0; i < 100; i++) held.push_back(Connect());
  ASSERT_TRUE(log().WaitFor("Failed to accept a client: Too many open files.", 5000));
  // User and system CPU ticks, fields 14 and 15 of /proc/<pid>/stat.
  auto cpu_ticks = [pid] {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string field;
    std::getline(stat, field, ')');  // past the command name
    long ticks = 0;
    for (int i = 3; i <= 15 && stat >> field; i++) ticks += i >= 14 ? std::stol(field) : 0;
    return ticks;
  };
  long before = cpu_ticks();
  std::this_thread::sleep_for(std::chrono::seconds(2));
  EXPECT_LT(cpu_ticks() - before, sysconf(_SC_CLK_TCK) / 5) << "under 10% of a CPU meanwhile";
  for (int fd : held) close(fd);
  EXPECT_TRUE(AnsweredWithin(5000));
}

}  // namespace
}  // namespace tessard::test

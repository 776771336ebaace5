// The serving loop as clients see it: no client can stall, starve or exhaust the daemon.
#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
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

// A reply to the GET of the tests: header, counted text of 2,000 bytes.
constexpr long kReplyLength = 2006;

long ElapsedMs(Clock::time_point since) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - since).count();
}

class ServingTest : public SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    if (HasFatalFailure()) return;
    WriteFile(
        "/etc/tessard.conf",
        "group Net { accessControl = \":1\" parser = Standardparser file = \"/etc/net.conf\"\n"
        "  param Name { mount = \"Standard{Root}{name}\" } }\n");
    // A long value makes every reply 2 KiB, so unread replies pile up quickly.
    WriteFile("/etc/net.conf", "name " + std::string(2000, 'n') + "\n");
  }

  // Whether a new client's GET is answered within `timeout_ms`.
  static bool AnsweredWithin(int timeout_ms) {
    int fd = Connect();
    std::vector<unsigned char> reply;
    bool answered = fd >= 0 && Send(fd, GetFrame("Net.Name")) &&
                    ReadReply(fd, &reply, timeout_ms) == 0 && reply.size() == kReplyLength;
    if (fd >= 0) close(fd);
    return answered;
  }

  // CPU seconds (user and system) the process has used.
  static double CpuSeconds(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string field;
    std::getline(stat, field, ')');  // past the command name
    long ticks = 0;
    for (int i = 3; i <= 15 && stat >> field; i++) {
      if (i >= 14) ticks += std::stol(field);
    }
    return static_cast<double>(ticks) / sysconf(_SC_CLK_TCK);
  }

  static void RaiseOwnFileLimit(rlim_t wanted) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_max < wanted) limit.rlim_max = wanted;
    limit.rlim_cur = limit.rlim_max;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0) << "raising the open-files limit needs root";
  }
};

TEST_F(ServingTest, IdleHalfSentAndNonReadingClientsDelayNobody) {
  StartServing({"/etc/tessard.conf", "0"});
  int idle = Connect();
  int half = Connect();
  int deaf = Connect();
  ASSERT_TRUE(idle >= 0 && half >= 0 && deaf >= 0);
  std::vector<unsigned char> frame = GetFrame("Net.Name");
  ASSERT_TRUE(Send(half, {frame.begin(), frame.begin() + 5}));
  // 4 MiB of replies asked for and never read: far beyond what the daemon queues for a client.
  fcntl(deaf, F_SETFL, O_NONBLOCK);
  for (int i = 0; i < 2000; i++) Send(deaf, frame);
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  auto start = Clock::now();
  EXPECT_TRUE(AnsweredWithin(500));
  EXPECT_LT(ElapsedMs(start), 500);
  close(idle);
  close(half);
  close(deaf);
}

TEST_F(ServingTest, HalfRequestIsAnsweredWhenCompletedInTimeAndDroppedAtTheDeadline) {
  StartServing({"/etc/tessard.conf", "0"});
  int late = Connect();
  int never = Connect();
  std::vector<unsigned char> frame = GetFrame("Net.Name");
  std::vector<unsigned char> head(frame.begin(), frame.begin() + 5);
  auto start = Clock::now();
  ASSERT_TRUE(Send(late, head) && Send(never, head));
  std::this_thread::sleep_for(std::chrono::seconds(2));
  ASSERT_TRUE(Send(late, {frame.begin() + 5, frame.end()}));
  std::vector<unsigned char> reply;
  EXPECT_EQ(ReadReply(late, &reply), 0);
  EXPECT_EQ(ReadReply(never, &reply, 10000), -2) << "end of file after the deadline";
  EXPECT_GE(ElapsedMs(start), 4500);
  EXPECT_TRUE(log().WaitFor("Dropping client: request not complete within 5 s.", 1000));
  close(late);
  close(never);
}

TEST_F(ServingTest, TwoFloodingClientsEachGetAThirdOfTheAnswers) {
  StartServing({"/etc/tessard.conf", "0"});
  // One thread drives both clients, so that neither is favoured by the scheduler of the test: each
  // keeps many requests in flight and asks again for every answer.
  std::vector<unsigned char> frame = GetFrame("Net.Name");
  pollfd clients[2] = {{Connect(), POLLIN, 0}, {Connect(), POLLIN, 0}};
  long bytes[2] = {0, 0};
  for (pollfd& c : clients) {
    for (int i = 0; i < 64; i++) Send(c.fd, frame);
  }
  auto start = Clock::now();
  while (ElapsedMs(start) < 2000 && poll(clients, 2, 1000) > 0) {
    for (int i = 0; i < 2; i++) {
      if (!(clients[i].revents & POLLIN)) continue;
      unsigned char buffer[65536];
      ssize_t got = read(clients[i].fd, buffer, sizeof(buffer));
      ASSERT_GT(got, 0);
      long before = bytes[i] / kReplyLength;
      bytes[i] += got;
      for (long n = bytes[i] / kReplyLength; n > before; n--) Send(clients[i].fd, frame);
    }
  }
  long answers[2] = {bytes[0] / kReplyLength, bytes[1] / kReplyLength};
  long total = answers[0] + answers[1];
  EXPECT_GT(total, 100);
  EXPECT_GE(answers[0] * 3, total) << answers[0] << " of " << total;
  EXPECT_GE(answers[1] * 3, total) << answers[1] << " of " << total;
  for (pollfd& c : clients) close(c.fd);
}

TEST_F(ServingTest, ElevenHundredSimultaneousClientsAreAllAnsweredTwice) {
  RaiseOwnFileLimit(4096);
  StartServing({"/etc/tessard.conf", "0"});
  std::vector<int> clients;
  for (int i = 0; i < 1100; i++) {
    clients.push_back(Connect());
    ASSERT_GE(clients.back(), 0) << "client " << i;
  }
  for (int round = 0; round < 2; round++) {
    for (int fd : clients) ASSERT_TRUE(Send(fd, GetFrame("Net.Name")));
    int answered = 0;
    std::vector<unsigned char> reply;
    for (int fd : clients)
      answered += ReadReply(fd, &reply, 20000) == 0 && reply.size() == kReplyLength;
    EXPECT_EQ(answered, 1100) << "round " << round;
  }
  for (int fd : clients) close(fd);
}

TEST_F(ServingTest, OutOfDescriptorsTheDaemonRestsAndServesOnceClientsLeave) {
  RaiseOwnFileLimit(1024);
  pid_t pid = StartServing({"/etc/tessard.conf", "0"});
  rlimit tight{64, 64};
  ASSERT_EQ(prlimit(pid, RLIMIT_NOFILE, &tight, nullptr), 0);
  std::vector<int> held;
  for (int i = 0; i < 100; i++) held.push_back(Connect());
  ASSERT_TRUE(log().WaitFor("Failed to accept a client: Too many open files.", 5000));
  double before = CpuSeconds(pid);
  std::this_thread::sleep_for(std::chrono::seconds(2));
  EXPECT_LT(CpuSeconds(pid) - before, 0.2) << "under 10% of a CPU while out of descriptors";
  for (int fd : held) close(fd);
  EXPECT_TRUE(AnsweredWithin(5000));
}

}  // namespace
}  // namespace tessard::test

#include "hosts/linux/ControlSocket.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <string>
#include <vector>

namespace {

using Hosts::Linux::ControlAnswer;
using Hosts::Linux::controlRequest;
using Hosts::Linux::ControlServer;

// A private directory for one test's socket, removed afterwards.
class TempDir {
 public:
  TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "ctlsock-XXXXXX").string();
    path_ = ::mkdtemp(pattern.data());
  }
  ~TempDir() { std::filesystem::remove_all(path_); }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Echoes the line back, upper-cased; refuses "bad".
ControlAnswer echo(std::string_view line) {
  if (line == "bad") return {false, "refused bad"};
  if (line == "two") return {true, "first\nsecond\n"};
  if (line == "none") return {true, ""};
  std::string text(line);
  for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return {true, text};
}

// Waits up to 10 ms for the server's descriptors and handles what is readable.
void serveOnce(ControlServer& server) {
  std::vector<pollfd> fds;
  for (int fd : server.fds()) fds.push_back({fd, POLLIN, 0});
  if (::poll(fds.data(), fds.size(), 10) <= 0) return;
  for (const pollfd& p : fds) {
    if (p.revents != 0) server.handleReadable(p.fd);
  }
}

// Runs the server's side until `done` is ready, polling at most a few seconds.
template <class T>
T serveUntil(ControlServer& server, std::future<T>& done) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (done.wait_for(std::chrono::seconds(0)) != std::future_status::ready &&
         std::chrono::steady_clock::now() < deadline) {
    serveOnce(server);
  }
  return done.get();
}

// Serves until the server has no client left, a few seconds at most.
void serveUntilNoClient(ControlServer& server) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (server.clientCount() != 0 && std::chrono::steady_clock::now() < deadline) {
    serveOnce(server);
  }
}

ControlAnswer ask(ControlServer& server, const std::string& command) {
  std::future<ControlAnswer> answer =
      std::async(std::launch::async, [&] { return controlRequest(server.path(), command); });
  return serveUntil(server, answer);
}

// A raw client for what controlRequest never sends.
int rawClient(const std::string& path) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
  const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
  EXPECT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
  return fd;
}

// Serves until the raw client has read `lines` lines, and returns them.
std::string readLines(ControlServer& server, int fd, size_t lines) {
  std::future<std::string> text = std::async(std::launch::async, [fd, lines] {
    std::string got;
    char c;
    size_t seen = 0;
    while (seen < lines && ::recv(fd, &c, 1, 0) == 1) {
      got += c;
      seen += c == '\n';
    }
    return got;
  });
  return serveUntil(server, text);
}

TEST(ControlServer, AnswersEachLineWithItsOutput) {
  TempDir dir;
  ControlServer server(dir.file("ctl"), echo);
  const ControlAnswer answer = ask(server, "show status");
  EXPECT_TRUE(answer.ok);
  EXPECT_EQ(answer.text, "SHOW STATUS\n");
  EXPECT_EQ(ask(server, "two").text, "first\nsecond\n");
  const ControlAnswer empty = ask(server, "none");
  EXPECT_TRUE(empty.ok);
  EXPECT_EQ(empty.text, "");
}

TEST(ControlServer, RefusedCommandAnswersItsError) {
  TempDir dir;
  ControlServer server(dir.file("ctl"), echo);
  const ControlAnswer answer = ask(server, "bad");
  EXPECT_FALSE(answer.ok);
  EXPECT_EQ(answer.text, "refused bad");
}

TEST(ControlServer, SocketIsOwnerOnly) {
  TempDir dir;
  ControlServer server(dir.file("ctl"), echo);
  struct stat info {};
  ASSERT_EQ(::stat(server.path().c_str(), &info), 0);
  EXPECT_TRUE(S_ISSOCK(info.st_mode));
  EXPECT_EQ(info.st_mode & 0777, 0600u);
}

TEST(ControlServer, TakesClientsOneAfterAnother) {
  TempDir dir;
  ControlServer server(dir.file("ctl"), echo);
  EXPECT_EQ(ask(server, "a").text, "A\n");
  EXPECT_EQ(ask(server, "b").text, "B\n");
  EXPECT_EQ(ask(server, "c").text, "C\n");
}

TEST(ControlServer, AnswersSeveralLinesOfOneClientInOrder) {
  TempDir dir;
  ControlServer server(dir.file("ctl"), echo);
  const int fd = rawClient(server.path());
  const std::string lines = "x\nbad\ny\n";
  ASSERT_EQ(::send(fd, lines.data(), lines.size(), 0), ssize_t(lines.size()));
  EXPECT_EQ(readLines(server, fd, 5), "ok 1\nX\nerror refused bad\nok 1\nY\n");
  ::close(fd);
}

TEST(ControlServer, ClientLeavingMidLineLosesOnlyThatLine) {
  TempDir dir;
  std::vector<std::string> seen;
  ControlServer server(dir.file("ctl"), [&](std::string_view line) {
    seen.emplace_back(line);
    return echo(line);
  });
  const int fd = rawClient(server.path());
  ASSERT_EQ(::send(fd, "request add", 11, 0), 11);
  ::close(fd);
  EXPECT_EQ(ask(server, "after").text, "AFTER\n");
  serveUntilNoClient(server);
  EXPECT_EQ(seen, std::vector<std::string>{"after"});
  EXPECT_EQ(server.clientCount(), 0u);
}

TEST(ControlServer, OverlongLineIsRefusedAndSkippedToItsEnd) {
  TempDir dir;
  std::vector<std::string> seen;
  ControlServer server(dir.file("ctl"), [&](std::string_view line) {
    seen.emplace_back(line);
    return echo(line);
  });
  const int fd = rawClient(server.path());
  const std::string lines = std::string(ControlServer::kMaxLine + 10, 'x') + "\nok\n";
  std::future<ssize_t> sent =
      std::async(std::launch::async, [&] { return ::send(fd, lines.data(), lines.size(), 0); });
  serveUntil(server, sent);
  EXPECT_EQ(readLines(server, fd, 3), "error line too long (over 4096 bytes)\nok 1\nOK\n");
  EXPECT_EQ(seen, std::vector<std::string>{"ok"});
  ::close(fd);
}

TEST(ControlServer, RefusesAPathThatIsNotASocket) {
  TempDir dir;
  const std::string path = dir.file("file");
  std::ofstream(path) << "keep me\n";
  EXPECT_THROW(ControlServer(path, echo), std::runtime_error);
  std::ifstream in(path);
  std::string kept;
  std::getline(in, kept);
  EXPECT_EQ(kept, "keep me");
}

TEST(ControlServer, RefusesASocketInUseAndReplacesAStaleOne) {
  TempDir dir;
  const std::string path = dir.file("ctl");
  {
    ControlServer first(path, echo);
    EXPECT_THROW(ControlServer(path, echo), std::runtime_error);
  }
  // A socket file whose listener is gone.
  const int stale = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
  ASSERT_EQ(::bind(stale, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
  ::close(stale);
  ControlServer second(path, echo);
  EXPECT_EQ(ask(second, "again").text, "AGAIN\n");
}

TEST(ControlServer, RemovesItsSocketWhenItEnds) {
  TempDir dir;
  const std::string path = dir.file("ctl");
  { ControlServer server(path, echo); }
  EXPECT_FALSE(std::filesystem::exists(path));
  EXPECT_THROW(controlRequest(path, "show status"), std::runtime_error);
}

}  // namespace

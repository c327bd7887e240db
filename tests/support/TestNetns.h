#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

// Network namespaces for tests that touch the kernel. Every namespace is named
// "fwdt<pid>-<n>-<tag>" so that test processes running at once never meet, and is removed by
// its destructor, at exit if a test left it, and by the next run if this process was killed
// (names whose pid no longer runs). Commands run through `ip`, never in the machine's own
// namespace.
namespace TestSupport {

// Runs a program with arguments, without a shell; returns its exit status, with what it printed
// on standard error in `err` when given.
inline int runCommand(const std::vector<std::string>& argv, std::string* err = nullptr) {
  int pipeFds[2];
  if (pipe2(pipeFds, O_CLOEXEC) != 0) return -1;
  const pid_t pid = fork();
  if (pid < 0) return -1;
  if (pid == 0) {
    const int devnull = open("/dev/null", O_WRONLY);
    dup2(devnull, STDOUT_FILENO);
    dup2(pipeFds[1], STDERR_FILENO);
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execvp(args[0], args.data());
    _exit(127);
  }
  close(pipeFds[1]);
  std::string text;
  char buf[512];
  ssize_t n;
  while ((n = read(pipeFds[0], buf, sizeof buf)) > 0) text.append(buf, static_cast<size_t>(n));
  close(pipeFds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  if (err) *err = text;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class TestNetns {
 public:
  // Whether this process can make namespaces; `why` says why not. Tried once.
  static bool available(std::string* why) {
    static std::string reason = [] {
      removeStale();
      std::string err;
      const std::string probe = uniqueName("probe");
      if (runCommand({"ip", "netns", "add", probe}, &err) != 0) {
        return "cannot create network namespaces: " + (err.empty() ? "ip failed" : err);
      }
      runCommand({"ip", "netns", "del", probe});
      return std::string();
    }();
    if (why) *why = reason;
    return reason.empty();
  }

  // Creates the namespace, with its loopback up; throws std::runtime_error when it cannot.
  explicit TestNetns(const std::string& tag) : name_(uniqueName(tag)) {
    std::string err;
    if (runCommand({"ip", "netns", "add", name_}, &err) != 0) {
      throw std::runtime_error("ip netns add " + name_ + ": " + err);
    }
    registry().insert(name_);
    ip("link set lo up");
  }
  ~TestNetns() {
    runCommand({"ip", "netns", "del", name_});
    registry().erase(name_);
  }
  TestNetns(const TestNetns&) = delete;
  TestNetns& operator=(const TestNetns&) = delete;

  const std::string& name() const { return name_; }

  // Runs `ip -n NAME ARGS` (ARGS split at blanks); throws std::runtime_error naming the
  // command and the error when it fails.
  void ip(const std::string& args) const {
    std::string err;
    if (ipStatus(args, &err) != 0) {
      throw std::runtime_error("ip -n " + name_ + " " + args + ": " + err);
    }
  }
  int ipStatus(const std::string& args, std::string* err = nullptr) const {
    std::vector<std::string> argv{"ip", "-n", name_};
    for (auto& word : split(args)) argv.push_back(word);
    return runCommand(argv, err);
  }
  // Deletes the namespace ahead of the destructor (which then does nothing harmful).
  void del() const { runCommand({"ip", "netns", "del", name_}); }
  void add() const { runCommand({"ip", "netns", "add", name_}); }

  // A veth pair `here` (in this namespace) <-> `there` (in `peer`), both up, with the given
  // addresses (CIDR, none when empty).
  void vethTo(const TestNetns& peer, const std::string& here, const std::string& hereAddr,
              const std::string& there, const std::string& thereAddr) const {
    ip("link add " + here + " type veth peer name " + there + " netns " + peer.name());
    if (!hereAddr.empty()) ip("addr add " + hereAddr + " dev " + here);
    if (!thereAddr.empty()) peer.ip("addr add " + thereAddr + " dev " + there);
    ip("link set " + here + " up");
    peer.ip("link set " + there + " up");
  }

 private:
  static std::string uniqueName(const std::string& tag) {
    static int counter = 0;
    return "fwdt" + std::to_string(getpid()) + "-" + std::to_string(counter++) + "-" + tag;
  }

  static std::vector<std::string> split(const std::string& text) {
    std::vector<std::string> words;
    std::string word;
    for (char c : text) {
      if (c == ' ') {
        if (!word.empty()) words.push_back(word);
        word.clear();
      } else {
        word += c;
      }
    }
    if (!word.empty()) words.push_back(word);
    return words;
  }

  // Namespaces this process made and has not removed: removed at exit.
  static std::set<std::string>& registry() {
    static std::set<std::string>* names = [] {
      auto* set = new std::set<std::string>;
      std::atexit([] {
        for (const auto& n : *registry_()) runCommand({"ip", "netns", "del", n});
      });
      return set;
    }();
    registry_() = names;
    return *names;
  }
  static std::set<std::string>*& registry_() {
    static std::set<std::string>* p = nullptr;
    return p;
  }

  // Namespaces left by test processes that no longer run (killed before their clean-up).
  static void removeStale() {
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator("/run/netns", ec)) {
      const std::string n = entry.path().filename().string();
      if (n.rfind("fwdt", 0) != 0) continue;
      const pid_t pid = static_cast<pid_t>(std::atoi(n.c_str() + 4));
      if (pid > 0 && pid != getpid() && kill(pid, 0) != 0 && errno == ESRCH) {
        runCommand({"ip", "netns", "del", n});
      }
    }
  }

  std::string name_;
};

}  // namespace TestSupport

// scale-scenario: prints a generated scenario for nexthop-sim at scale: many VRFs and requests
// resolved through ECMP routes and hosts answering ARP, then random churn (MAC moves, request
// and route flaps, restarts) that always returns to a fully resolved state, checked at the end.

#include <cstdint>
#include <cstdio>
#include <iostream>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

#include "hosts/HostCli.h"

namespace {

constexpr const char* kProgram = "scale-scenario";

struct Options {
  uint64_t vrfs = 16;
  uint64_t requests = 1024;
  uint64_t interfaces = 8;
  uint64_t churn = 10000;
  uint64_t seed = 1;
};

// splitmix64: the same seed prints the same scenario everywhere.
class Rng {
 public:
  explicit Rng(uint64_t seed) : state_(seed) {}
  uint64_t below(uint64_t n) {
    uint64_t z = (state_ += 0x9e3779b97f4a7c15ull);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
    return (z ^ (z >> 31)) % n;
  }

 private:
  uint64_t state_;
};

std::string intf(uint64_t i) { return "Ethernet" + std::to_string(i + 1); }
std::string vrf(uint64_t v) { return "vrf" + std::to_string(v + 1); }
// The host answering ARP on interface i.
std::string via(uint64_t i) { return "198.18.0." + std::to_string(i + 1); }
std::string nexthop(uint64_t r) {
  return "198.19." + std::to_string((r + 1) >> 8) + "." + std::to_string((r + 1) & 0xff);
}
// Generation g of the MAC of interface i's host.
std::string mac(uint64_t i, uint64_t g) {
  char text[18];
  std::snprintf(text, sizeof text, "02:00:%02x:%02x:%02x:%02x", static_cast<unsigned>(i & 0xff),
                static_cast<unsigned>((g >> 16) & 0xff), static_cast<unsigned>((g >> 8) & 0xff),
                static_cast<unsigned>(g & 0xff));
  return text;
}

class Generator {
 public:
  explicit Generator(const Options& o) : o_(o), rng_(o.seed) {}

  void print() {
    std::cout << "# scale-scenario --vrfs " << o_.vrfs << " --requests " << o_.requests
              << " --interfaces " << o_.interfaces << " --churn " << o_.churn << " --seed "
              << o_.seed << "\n";
    std::cout << "engine auto-nhindex on\n";
    for (uint64_t i = 0; i < o_.interfaces; ++i) {
      std::cout << "nh-table add " << intf(i) << "\nhost add " << intf(i) << " " << via(i) << " "
                << mac(i, 0) << "\n";
    }
    for (uint64_t v = 0; v < o_.vrfs; ++v) {
      std::cout << "vrf add " << vrf(v) << "\n";
      route("add", v, o_.interfaces);
    }
    for (uint64_t v = 0; v < o_.vrfs; ++v) {
      for (uint64_t r = 0; r < o_.requests; ++r) std::cout << request("add", v, r);
    }
    std::cout << "advance 1\nexpect statuses " << o_.vrfs * o_.requests << "\n";
    for (uint64_t step = 0; step < o_.churn; ++step) churn();
    std::cout << "advance 1\nexpect statuses " << o_.vrfs * o_.requests << "\n";
  }

 private:
  // The VRF's route through every interface's host but `without` (none when out of range).
  void route(std::string_view verb, uint64_t v, uint64_t without) {
    std::cout << "route " << verb << " " << vrf(v) << " 198.19.0.0/16";
    for (uint64_t i = 0; i < o_.interfaces; ++i) {
      if (i != without) std::cout << " via " << via(i) << " dev " << intf(i);
    }
    std::cout << "\n";
  }

  // Request r of a VRF is on interface r mod the interface count.
  std::string request(std::string_view verb, uint64_t v, uint64_t r) const {
    return "request " + std::string(verb) + " " + vrf(v) + " " + nexthop(r) + " " +
           intf(r % o_.interfaces) + "\n";
  }

  void churn() {
    const uint64_t roll = rng_.below(100);
    if (roll < 40) {
      // The host on an interface moves to a new MAC; the engine gives it a new index.
      const uint64_t i = rng_.below(o_.interfaces);
      const std::string moved = mac(i, ++generation_);
      std::cout << "host del " << intf(i) << " " << via(i) << "\nhost add " << intf(i) << " "
                << via(i) << " " << moved << "\nneigh replace " << intf(i) << " " << via(i)
                << " lladdr " << moved << "\n";
    } else if (roll < 75) {
      const uint64_t v = rng_.below(o_.vrfs);
      const uint64_t r = rng_.below(o_.requests);
      std::cout << request("del", v, r) << request("add", v, r);
    } else if (roll < 95 && o_.interfaces > 1) {
      // One interface's path of a VRF goes, and comes back a moment later.
      const uint64_t v = rng_.below(o_.vrfs);
      route("replace", v, rng_.below(o_.interfaces));
      std::cout << "advance 1\n";
      route("replace", v, o_.interfaces);
    } else if (roll < 99) {
      std::cout << "advance 1\n";
    } else {
      std::cout << "restart\n";
    }
  }

  const Options& o_;
  Rng rng_;
  uint64_t generation_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
  CLI::App app;
  Hosts::Cli::conventionsIs(app, kProgram);
  app.description(
      "Prints a scenario for nexthop-sim: VRFs with requests over interfaces, resolved through "
      "ECMP routes and hosts answering ARP, then churn steps drawn from the seed. Addresses are "
      "in 198.18.0.0/15.");
  Options o;
  app.add_option("--vrfs", o.vrfs, "VRFs (default 16)")->check(CLI::Range(1, 4096));
  app.add_option("--requests", o.requests, "requests per VRF (default 1024)")
      ->check(CLI::Range(1, 65535));
  app.add_option("--interfaces", o.interfaces, "interfaces (default 8)")->check(CLI::Range(1, 250));
  app.add_option("--churn", o.churn, "churn steps (default 10000)")
      ->check(CLI::Range(uint64_t{0}, uint64_t{1} << 32));
  app.add_option("--seed", o.seed, "the random seed (default 1)");
  if (auto done = Hosts::Cli::parse(app, argc, argv)) return *done;
  Generator(o).print();
  return Hosts::Cli::finishOutput(kProgram, 0);
}

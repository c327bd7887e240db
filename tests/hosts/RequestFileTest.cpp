#include "hosts/RequestFile.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "support/FwdTestValues.h"

namespace {

using FwdTest::key;
using Hosts::requestFileParse;
using Hosts::requestFileRead;

Netval::IntfId switchName(std::string_view name) { return Netval::IntfId::fromText(name); }

TEST(RequestFile, ReadsOneRequestPerLineWithCommentsAndBlanks) {
  const auto parsed = requestFileParse(
      "# requests\n"
      "red 10.0.0.1 Ethernet1\n"
      "\n"
      "  blue\t10.0.0.2   Ethernet2  # trailing comment\n",
      "r.txt", switchName);
  EXPECT_TRUE(parsed.errors.empty());
  ASSERT_EQ(parsed.requests.size(), 2u);
  EXPECT_EQ(parsed.requests[0], key("red", "10.0.0.1", "Ethernet1"));
  EXPECT_EQ(parsed.requests[1], key("blue", "10.0.0.2", "Ethernet2"));
}

TEST(RequestFile, RefusesEachBadLineNamingItsPlace) {
  const std::string longName(101, 'v');
  const auto parsed = requestFileParse(
      "red 10.0.0.1\n"
      "red 10.0.0.1 Ethernet1 extra\n"
      "red 0.0.0.0 Ethernet1\n"
      "red 2001:db8::1 Ethernet1\n"
      "red 10.0.0.300 Ethernet1\n"
      "red 10.0.0.1 Bogus9\n" +
          longName + " 10.0.0.1 Ethernet1\n" +
          "red 10.0.0.1 Ethernet1\n"
          "red 10.0.0.1 Ethernet1\n"
          "re\x01d 10.0.0.1 Ethernet1\n",
      "r.txt", switchName);
  EXPECT_EQ(parsed.errors, (std::vector<std::string>{
                               "r.txt:1: expected VRF ADDR INTF, found 2 words",
                               "r.txt:2: expected VRF ADDR INTF, found 4 words",
                               "r.txt:3: next hop '0.0.0.0' is not a non-zero IPv4 address",
                               "r.txt:4: next hop '2001:db8::1' is not a non-zero IPv4 address",
                               "r.txt:5: bad address '10.0.0.300'",
                               "r.txt:6: bad interface name 'Bogus9'",
                               "r.txt:7: VRF name of 101 bytes is over 100",
                               "r.txt:9: request given twice (first on line 8)",
                               "r.txt:10: VRF name 're\x01d' has a control character",
                           }));
  ASSERT_EQ(parsed.requests.size(), 1u);
}

TEST(RequestFile, InterfaceNamesAreTheHostsToJudge) {
  const auto kernel = [](std::string_view name) { return Netval::IntfId::fromText(name); };
  const auto refuseAll = [](std::string_view) -> Netval::IntfId {
    throw std::invalid_argument("no");
  };
  EXPECT_TRUE(requestFileParse("red 10.0.0.1 Ethernet1\n", "f", kernel).errors.empty());
  EXPECT_EQ(requestFileParse("red 10.0.0.1 Ethernet1\n", "f", refuseAll).errors,
            std::vector<std::string>{"f:1: bad interface name 'Ethernet1'"});
}

TEST(RequestFile, AFileThatCannotBeReadIsOneErrorNamingTheCause) {
  const std::string dir = std::filesystem::temp_directory_path().string();
  EXPECT_EQ(requestFileRead(dir + "/no-such-request-file", switchName).errors,
            std::vector<std::string>{"cannot open request file " + dir +
                                     "/no-such-request-file: No such file or directory"});
  EXPECT_EQ(requestFileRead(dir, switchName).errors,
            std::vector<std::string>{"cannot open request file " + dir + ": Is a directory"});
}

TEST(RequestFile, ReadsAFileFromDisk) {
  const std::string path = std::filesystem::temp_directory_path().string() + "/requests-" +
                           std::to_string(::getpid()) + ".txt";
  std::ofstream(path) << "red 10.0.0.1 Ethernet1\nred 10.0.0.2 Ethernet1";
  const auto parsed = requestFileRead(path, switchName);
  std::filesystem::remove(path);
  EXPECT_TRUE(parsed.errors.empty());
  EXPECT_EQ(parsed.requests.size(), 2u);
}

}  // namespace

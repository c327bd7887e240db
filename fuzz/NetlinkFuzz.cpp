// Fuzz target: arbitrary bytes as what a netlink socket of the Linux host reads. Every message
// either lies wholly in the buffer and parses into a fact, is one the host does not use, or is
// refused with NetlinkError; nothing else may happen.

#include <linux/netlink.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "fuzz/FuzzCheck.h"
#include "hosts/linux/NetlinkMessages.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // A socket reads into an aligned buffer; so does the target.
  std::vector<uint64_t> buffer((size + sizeof(uint64_t) - 1) / sizeof(uint64_t));
  if (size != 0) std::memcpy(buffer.data(), data, size);
  size_t messages = 0;
  try {
    Hosts::Linux::forEachMessage(buffer.data(), size, [&](const nlmsghdr* nlh) {
      ++messages;
      const auto* begin = reinterpret_cast<const uint8_t*>(buffer.data());
      const auto* at = reinterpret_cast<const uint8_t*>(nlh);
      FUZZ_CHECK(at >= begin && at + nlh->nlmsg_len <= begin + size);
      try {
        if (nlh->nlmsg_type == NLMSG_ERROR) {
          // Any code may be read; the kernel's are never positive, but these bytes are not its.
          Hosts::Linux::errorCode(nlh);
        } else {
          Hosts::Linux::parseMessage(nlh);
        }
      } catch (const Hosts::Linux::NetlinkError&) {
        // A malformed message is refused; the next one is still read.
      }
    });
  } catch (const Hosts::Linux::NetlinkError&) {
    // A truncated buffer is refused.
  }
  // A message takes at least its header.
  FUZZ_CHECK(messages <= size / sizeof(nlmsghdr));
  return 0;
}

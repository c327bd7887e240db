#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "Fwd/FwdNexthopNhIndexResolverCommon.h"
#include "framework/L3VrfName.h"
#include "framework/Netval.h"

namespace Hosts {

// Requests read from a file an operator wrote: one request per line, "VRF ADDR INTF", words
// separated by blanks, '#' starts a comment, blank lines ignored.
struct RequestFile {
  // Every good request, in file order.
  std::vector<FwdL3Unicast::NexthopNhIndexResolverKey> requests;
  // One "FILE:LINE: message" per refused line, in file order.
  std::vector<std::string> errors;
};

// The words of a line an operator wrote: separated by blanks, '#' starts a comment.
std::vector<std::string_view> lineWords(std::string_view line);

// How a host names interfaces: the simulator knows only the switch's forms, the Linux host takes
// kernel names. Throws (any std::exception) for a name it refuses.
using IntfParser = std::function<Netval::IntfId(std::string_view)>;

// A VRF name as an operator wrote it; throws std::invalid_argument for one over 100 bytes or with
// a control character.
L3::VrfName vrfNameParse(std::string_view text);
// An interface name `parseIntf` takes; throws std::invalid_argument ("bad interface name 'x'").
Netval::IntfId intfParse(std::string_view text, const IntfParser& parseIntf);

// One request from its three words, with the checks below; throws std::invalid_argument with
// the reason ("bad address '10.0.0'"), never a place.
FwdL3Unicast::NexthopNhIndexResolverKey requestKeyParse(std::string_view vrf, std::string_view addr,
                                                        std::string_view intf,
                                                        const IntfParser& parseIntf);

// Parses `text`; `file` names it in errors. A line is refused for a wrong word count, a VRF name
// over 100 bytes or with a control character, an address that is not a non-zero IPv4 address, an
// interface `parseIntf` refuses, or a request given twice. Nothing is thrown.
RequestFile requestFileParse(std::string_view text, std::string_view file,
                             const IntfParser& parseIntf);

// Reads the file at `path` and parses it. A file that cannot be read (absent, a directory, not
// readable) gives one error naming the cause: "cannot open request file X: No such file or
// directory".
RequestFile requestFileRead(const std::string& path, const IntfParser& parseIntf);

}  // namespace Hosts

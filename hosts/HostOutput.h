#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "Fwd/FwdNexthopNhIndexResolverCommon.h"

namespace Hosts {

// A JSON document; its fields keep the order they were written in.
using Json = nlohmann::ordered_json;

// How a program prints what it reports: text for people (the default), or one JSON document per
// line for programs (-j/--json).
enum class OutputFormat { text, json };

// {"vrf": "red", "nexthop": "10.0.0.1", "interface": "Ethernet1"}: a request key in JSON.
Json keyJson(const FwdL3Unicast::NexthopNhIndexResolverKey& key);

}  // namespace Hosts

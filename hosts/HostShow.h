#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "Fwd/FwdNexthopNhIndexResolverCommon.h"
#include "framework/L3VrfName.h"
#include "framework/Netval.h"
#include "hosts/HostOutput.h"
#include "hosts/ModuleHost.h"

// What the `show` commands, `explain` and the dump print, written once for every host: each
// state is collected, sorted, as one JSON document (the -j/--json form, field names below), and
// the text form is rendered from that document, so the two never disagree.
namespace Hosts::Show {

// [{"vrf", "nexthop", "interface", "nhIndex"}]; text "status red 10.0.0.1 Ethernet1 nhIndex 17"
// per status, "no statuses" for none. Only the VRF's when given.
Json statuses(const ModuleHost& host, const std::optional<L3::VrfName>& vrf);
std::string statusesText(const Json& doc);

// [{"vrf", "nexthop", "interface", "nhIndex"}], nhIndex null while unresolved; text "request red
// 10.0.0.1 Ethernet1 nhIndex 17" or "... unresolved", "no requests" for none.
Json requests(const ModuleHost& host, const std::optional<L3::VrfName>& vrf);
std::string requestsText(const Json& doc);

// [{"vrf", "id", "l3Status"}]; text "vrf red id 1 l3-status up|down", "no VRFs" for none.
Json vrfs(const ModuleHost& host);
std::string vrfsText(const Json& doc);

// [{"vrf", "prefix", "fec", "nexthops": [{"gateway", "dev"}]}], gateway absent for a directly
// attached route; text "route red 10.0.0.0/24 fec 1 via 10.0.0.254 dev Ethernet1".
Json routes(const ModuleHost& host);
std::string routesText(const Json& doc);

// [{"dev", "dst", "lladdr", "l2"}], l2 null for none; text "neigh Ethernet1 10.0.0.254 lladdr
// 00:1c:73:aa:bb:01 l2 Ethernet1".
Json neighbours(const ModuleHost& host);
std::string neighboursText(const Json& doc);

// [{"dev", "present", "nhIndexes": [{"nhIndex", "lladdr"}]}]; only `intf`'s when given, which is
// {"dev", "present": false} when it has no table (text "nh-table Ethernet1: no table").
Json nhTables(const ModuleHost& host, const std::optional<Netval::IntfId>& intf);
std::string nhTablesText(const Json& doc);

// {"entries": [{"dev", "dst", "arpVrfId", ..., "triggers"}]}: what the module asks proactive ARP
// for, sorted, with the host's own fields (ModuleHost::arpShow()) before "triggers"; text "arp
// Ethernet1 10.0.0.254 arpVrfId 1001 probes 1 triggers 0" (each field after the key as "NAME
// VALUE", null as "none"), "no proactive ARP entries" for none.
Json arp(const ModuleHost& host);
std::string arpText(const Json& doc);

// {"vrf", "nexthop", "interface", "resolved", "reason"}: `reason` as explain() says it; text
// "explain red 10.0.0.1 Ethernet1: REASON".
Json explanation(const FwdL3Unicast::NexthopNhIndexResolverKey& key, const std::string& reason);
std::string explanationText(const Json& doc);

// The root's dump (ModuleHost::dump()) as a tree: [{"line", "children": [...]}], children only
// when a node has some; the text is the dump itself.
Json dump(const std::string& text);

// The document as `format` prints it: the text, or the JSON on one line.
std::string render(const Json& doc, std::string (*text)(const Json&), OutputFormat format);
// The dump's `text` as `format` prints it: itself, or dump()'s tree on one line.
std::string renderDump(const std::string& text, OutputFormat format);

}  // namespace Hosts::Show

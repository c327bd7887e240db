#include "hosts/HostShow.h"

#include <algorithm>
#include <map>
#include <vector>

#include "hosts/HostStatusLog.h"

namespace Hosts::Show {

namespace {

std::string keyTextOf(const Json& entry) {
  return entry["vrf"].get<std::string>() + " " + entry["nexthop"].get<std::string>() + " " +
         entry["interface"].get<std::string>();
}

bool inVrf(const FwdL3Unicast::NexthopNhIndexResolverKey& key,
           const std::optional<L3::VrfName>& vrf) {
  return !vrf || key.vrfName() == *vrf;
}

// One line per entry, or `none` for an empty document.
std::string lines(const Json& doc, const char* none, std::string (*line)(const Json&)) {
  if (doc.empty()) return std::string(none) + '\n';
  std::string text;
  for (const Json& entry : doc) text += line(entry) + '\n';
  return text;
}

}  // namespace

Json statuses(const ModuleHost& host, const std::optional<L3::VrfName>& vrf) {
  std::map<FwdL3Unicast::NexthopNhIndexResolverKey, uint32_t> sorted;
  for (const auto& status : host.statusDir()->status()) {
    if (inVrf(status.key(), vrf)) sorted[status.key()] = status.nhIndex();
  }
  Json doc = Json::array();
  for (const auto& [key, nhIndex] : sorted) {
    Json entry = keyJson(key);
    entry["nhIndex"] = nhIndex;
    doc.push_back(std::move(entry));
  }
  return doc;
}

std::string statusesText(const Json& doc) {
  return lines(doc, "no statuses", [](const Json& e) {
    return "status " + keyTextOf(e) + " nhIndex " + std::to_string(e["nhIndex"].get<uint32_t>());
  });
}

Json requests(const ModuleHost& host, const std::optional<L3::VrfName>& vrf) {
  std::vector<FwdL3Unicast::NexthopNhIndexResolverKey> sorted;
  for (const auto& key : host.configDir()->config()) {
    if (inVrf(key, vrf)) sorted.push_back(key);
  }
  std::sort(sorted.begin(), sorted.end());
  Json doc = Json::array();
  for (const auto& key : sorted) {
    Json entry = keyJson(key);
    const std::optional<uint32_t> nhIndex = host.statusNhIndex(key);
    entry["nhIndex"] = nhIndex ? Json(*nhIndex) : Json(nullptr);
    doc.push_back(std::move(entry));
  }
  return doc;
}

std::string requestsText(const Json& doc) {
  return lines(doc, "no requests", [](const Json& e) {
    const Json& nhIndex = e["nhIndex"];
    return "request " + keyTextOf(e) +
           (nhIndex.is_null() ? " unresolved"
                              : " nhIndex " + std::to_string(nhIndex.get<uint32_t>()));
  });
}

Json vrfs(const ModuleHost& host) {
  const Plane::VrfL3StatusAll& all = *host.vrfStatusAll();
  std::map<std::string, Json> sorted;
  for (const auto& entry : all.vrfId()) {
    sorted[std::string(entry.key.str())] = {
        {"vrf", entry.key.str()}, {"id", entry.value}, {"l3Status", all.vrfStatusHas(entry.key)}};
  }
  Json doc = Json::array();
  for (auto& [name, entry] : sorted) doc.push_back(std::move(entry));
  return doc;
}

std::string vrfsText(const Json& doc) {
  return lines(doc, "no VRFs", [](const Json& e) {
    return "vrf " + e["vrf"].get<std::string>() + " id " + std::to_string(e["id"].get<uint32_t>()) +
           " l3-status " + (e["l3Status"].get<bool>() ? "up" : "down");
  });
}

Json routes(const ModuleHost& host) {
  Json doc = Json::array();
  for (const auto& [vrf, table] : host.routing()->routes()) {
    for (const auto& [prefix, route] : table) {
      Json nexthops = Json::array();
      for (const Memtab::FibGen::Via& via : route.vias) {
        Json hop = {{"dev", via.intfId().name()}};
        if (!via.hop().isAddrZero()) hop["gateway"] = via.hop().toString();
        nexthops.push_back(std::move(hop));
      }
      doc.push_back({{"vrf", vrf.str()},
                     {"prefix", prefix.toString()},
                     {"fec", route.fecId},
                     {"nexthops", std::move(nexthops)}});
    }
  }
  return doc;
}

std::string routesText(const Json& doc) {
  return lines(doc, "no routes", [](const Json& e) {
    std::string line = "route " + e["vrf"].get<std::string>() + " " +
                       e["prefix"].get<std::string>() + " fec " + e["fec"].dump();
    for (const Json& hop : e["nexthops"]) {
      if (hop.contains("gateway")) line += " via " + hop["gateway"].get<std::string>();
      line += " dev " + hop["dev"].get<std::string>();
    }
    return line;
  });
}

Json neighbours(const ModuleHost& host) {
  std::map<Plane::NextHopKey, Plane::NextHopInfo> sorted;
  for (const auto& entry : host.nextHopInfoWrapper()->nextHopInfo()) {
    sorted[entry.key] = entry.value;
  }
  Json doc = Json::array();
  for (const auto& [key, info] : sorted) {
    doc.push_back({{"dev", key.intfId().name()},
                   {"dst", key.addr().toString()},
                   {"lladdr", info.ethAddr().toString()},
                   {"l2", info.l2Intf().empty() ? Json(nullptr) : Json(info.l2Intf().name())}});
  }
  return doc;
}

std::string neighboursText(const Json& doc) {
  return lines(doc, "no neighbours", [](const Json& e) {
    return "neigh " + e["dev"].get<std::string>() + " " + e["dst"].get<std::string>() + " lladdr " +
           e["lladdr"].get<std::string>() + " l2 " +
           (e["l2"].is_null() ? std::string("none") : e["l2"].get<std::string>());
  });
}

Json nhTables(const ModuleHost& host, const std::optional<Netval::IntfId>& intf) {
  if (intf && !host.l3Modules()->nextHopModHas(*intf)) {
    return Json::array({{{"dev", intf->name()}, {"present", false}}});
  }
  std::map<Netval::IntfId, std::map<uint32_t, Netval::EthAddr>> sorted;
  for (const auto& module : host.l3Modules()->nextHopMod()) {
    if (intf && module->intfId() != *intf) continue;
    auto& table = sorted[module->intfId()];
    for (const auto& entry : module->nhIndexToMac()) table[entry.key] = entry.value;
  }
  Json doc = Json::array();
  for (const auto& [intfId, table] : sorted) {
    Json indexes = Json::array();
    for (const auto& [nhIndex, ethAddr] : table) {
      indexes.push_back({{"nhIndex", nhIndex}, {"lladdr", ethAddr.toString()}});
    }
    doc.push_back({{"dev", intfId.name()}, {"present", true}, {"nhIndexes", std::move(indexes)}});
  }
  return doc;
}

std::string nhTablesText(const Json& doc) {
  if (doc.empty()) return "no next-hop tables\n";
  std::string text;
  for (const Json& table : doc) {
    text += "nh-table " + table["dev"].get<std::string>() + ": ";
    if (!table["present"].get<bool>()) {
      text += "no table\n";
      continue;
    }
    const Json& indexes = table["nhIndexes"];
    text += std::to_string(indexes.size()) + " nhIndex" + (indexes.size() == 1 ? "" : "es") + '\n';
    for (const Json& entry : indexes) {
      text +=
          "  nhindex " + entry["nhIndex"].dump() + " " + entry["lladdr"].get<std::string>() + '\n';
    }
  }
  return text;
}

Json arp(const ModuleHost& host) {
  std::vector<Arp::ProactiveArp::ClientEntry> entries;
  for (const auto& entry : host.clientConfig()->entry()) entries.push_back(entry);
  std::sort(entries.begin(), entries.end());
  Json doc = {{"entries", Json::array()}};
  for (const auto& entry : entries) {
    const Plane::NextHopKey& key = entry.key();
    Json item = {{"dev", key.intfId().name()},
                 {"dst", key.addr().toString()},
                 {"arpVrfId", entry.arpVrfId()}};
    host.arpShow(key, item);
    item["triggers"] = host.clientConfig()->resolutionTrigger(key);
    doc["entries"].push_back(std::move(item));
  }
  return doc;
}

std::string arpText(const Json& doc) {
  return lines(doc["entries"], "no proactive ARP entries", [](const Json& e) {
    std::string line = "arp " + e["dev"].get<std::string>() + " " + e["dst"].get<std::string>();
    for (const auto& [name, value] : e.items()) {
      if (name == "dev" || name == "dst") continue;
      line += " " + name + " ";
      if (value.is_string()) {
        line += value.get<std::string>();
      } else {
        line += value.is_null() ? "none" : value.dump();
      }
    }
    return line;
  });
}

Json explanation(const FwdL3Unicast::NexthopNhIndexResolverKey& key, const std::string& reason) {
  Json doc = keyJson(key);
  doc["resolved"] = reason.starts_with("resolved");
  doc["reason"] = reason;
  return doc;
}

std::string explanationText(const Json& doc) {
  return "explain " + keyTextOf(doc) + ": " + doc["reason"].get<std::string>() + '\n';
}

Json dump(const std::string& text) {
  Json doc = Json::array();
  // The open nodes, outermost first, with their indents.
  std::vector<std::pair<size_t, Json*>> open;
  size_t pos = 0;
  while (pos < text.size()) {
    const size_t end = std::min(text.find('\n', pos), text.size());
    const std::string_view line(text.data() + pos, end - pos);
    pos = end + 1;
    const size_t indent = std::min(line.find_first_not_of(' '), line.size());
    if (indent == line.size()) continue;
    while (!open.empty() && open.back().first >= indent) open.pop_back();
    Json* siblings = open.empty() ? &doc : &(*open.back().second)["children"];
    siblings->push_back({{"line", std::string(line.substr(indent))}});
    open.emplace_back(indent, &siblings->back());
  }
  return doc;
}

std::string render(const Json& doc, std::string (*text)(const Json&), OutputFormat format) {
  if (format == OutputFormat::json) return doc.dump() + '\n';
  return text(doc);
}

std::string renderDump(const std::string& text, OutputFormat format) {
  if (format == OutputFormat::json) return dump(text).dump() + '\n';
  return text;
}

}  // namespace Hosts::Show

// bgpcommon mrt FILE...: the routes of MRT files (RIB dumps, update dumps; bzip2, gzip or plain),
// one line each:
//
//   $ bgpcommon mrt rib.20140523.0600.bz2
//   2014-05-23 06:00:00 rib 196.7.106.245 AS2905 0.0.0.0/0 path 2905 65023 16637 origin igp next-hop 196.7.106.245
//   $ bgpcommon mrt --bgpdump updates.mrt       # exactly the lines of `bgpdump -m`
//   BGP4MP|1795673946|A|127.0.0.1|65001|10.1.0.0/16|65001 4200000000 3356 {100,200}|IGP|127.0.0.1|200|50|...
//   $ bgpcommon mrt --json --prefix 10.1.0.0/16 --peer 127.0.0.1 updates.mrt   # a JSON object a line
//   $ bgpcommon mrt --summary rib.bz2           # read everything, print only the counts
//
// A damaged record is named on standard error with its file offset; what comes before it is
// printed, reading goes on where the framing allows, and the exit status is 1.
#include <arpa/inet.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

#include <fmt/format.h>

#include "BgpCommon/BgpMrt.h"
#include "platform/Kelp/Json.h"
#include "tools/Command.h"
#include "tools/JsonSupport.h"

namespace {

using namespace Routing::Bgp;

struct MrtOptions {
  std::vector<std::string> files;
  std::vector<std::string> prefixes;
  std::vector<std::string> peers;
  bool json = false;
  bool bgpdump = false;
  bool summary = false;
};

// Text written with as few checks as it takes: each write makes room first, numbers are written
// two digits at a time.
class Text {
 public:
  explicit Text(std::size_t capacity = 256) : text_(capacity) {}
  Text& operator+=(char c) {
    room(1);
    text_[size_++] = c;
    return *this;
  }
  Text& operator+=(std::string_view s) {
    room(s.size());
    std::memcpy(text_.data() + size_, s.data(), s.size());
    size_ += s.size();
    return *this;
  }
  void number(U64 v) {
    static constexpr auto kPairs = [] {
      std::array<char, 200> pairs{};
      for (int i = 0; i < 100; ++i) pairs[2 * i] = char('0' + i / 10), pairs[2 * i + 1] = char('0' + i % 10);
      return pairs;
    }();
    char digits[20];
    char* p = digits + sizeof digits;
    for (; v >= 100; v /= 100) p -= 2, std::memcpy(p, &kPairs[2 * (v % 100)], 2);
    if (v >= 10) {
      p -= 2, std::memcpy(p, &kPairs[2 * v], 2);
    } else {
      *--p = char('0' + v);
    }
    *this += std::string_view(p, digits + sizeof digits - p);
  }
  std::size_t size() const { return size_; }
  const char* data() const { return text_.data(); }
  std::string str() const { return std::string(text_.data(), size_); }
  void clear() { size_ = 0; }

 private:
  void room(std::size_t n) {
    if (size_ + n > text_.size()) [[unlikely]]
      text_.resize(std::max(2 * text_.size(), size_ + n + 4096));
  }
  std::vector<char> text_;
  std::size_t size_ = 0;
};

// Standard output through one buffer, written in large pieces.
class Output {
 public:
  ~Output() { flush(); }
  Text& text() { return text_; }
  void lineDone() {
    if (text_.size() >= kChunk) flush();
  }
  void flush() {
    if (text_.size() > 0 && std::fwrite(text_.data(), 1, text_.size(), stdout) != text_.size()) failed_ = true;
    text_.clear();
  }
  bool failed() const { return failed_; }

 private:
  static constexpr std::size_t kChunk = 256 << 10;
  Text text_;  // grows to about kChunk; --summary never fills it
  bool failed_ = false;
};

void appendAddress(Text& out, const Netzo::IpGenAddr& a) {
  const U8* o = a.octets();
  if (a.isIpv4()) {
    for (int i = 0; i < 4; ++i) {
      if (i) out += '.';
      out.number(o[i]);
    }
  } else if (a.isIpv6()) {
    char text[INET6_ADDRSTRLEN];
    out += inet_ntop(AF_INET6, o, text, sizeof text);
  }
}

void appendPrefix(Text& out, const Netzo::IpGenPrefix& p) {
  appendAddress(out, p.address());
  out += '/';
  out.number(p.length());
}

// An address as bgpdump writes it. IPv6 differs from RFC 5952 in two ways: the longest run of
// zero groups becomes "::" also when it is a single group (2001:668::3:ffff:0:adcd:39ea), and an
// address whose first 96 bits are zero prints its last 32 as a dotted quad (::192.0.2.1) unless
// they are 0 or 1; ::ffff:192.0.2.1 as RFC 5952 has it.
void appendBgpdumpAddress(Text& out, const Netzo::IpGenAddr& a) {
  if (!a.isIpv6()) return appendAddress(out, a);
  const U8* o = a.octets();
  U16 group[8];
  for (int i = 0; i < 8; ++i) group[i] = U16(o[2 * i] << 8 | o[2 * i + 1]);
  const bool zero80 = !group[0] && !group[1] && !group[2] && !group[3] && !group[4];
  const U32 low = U32{group[6]} << 16 | group[7];
  if (zero80 && (group[5] == 0xFFFF || (group[5] == 0 && low > 1))) {
    out += group[5] ? "::ffff:" : "::";
    return appendAddress(out, Netzo::IpAddr::fromHostOrder(low));
  }
  int best = -1, bestLength = 0;
  for (int i = 0; i < 8;) {
    int j = i;
    while (j < 8 && group[j] == 0) ++j;
    if (j - i > bestLength) best = i, bestLength = j - i;
    i = j == i ? i + 1 : j;
  }
  static constexpr char hex[] = "0123456789abcdef";
  for (int i = 0; i < 8; ++i) {
    if (i == best) {
      out += i == 0 ? "::" : ":";
      i += bestLength - 1;
      continue;
    }
    const U16 g = group[i];
    for (int shift = 12; shift > 0; shift -= 4)
      if (g >> shift) out += hex[(g >> shift) & 15];
    out += hex[g & 15];
    if (i != 7) out += ':';
  }
}

void appendBgpdumpPrefix(Text& out, const Netzo::IpGenPrefix& p) {
  appendBgpdumpAddress(out, p.address());
  out += '/';
  out.number(p.length());
}

// AS_PATH as bgpdump prints it: sequences spaced, sets {a,b}, confederation sequences (a b),
// confederation sets [a,b].
void appendAsPath(Text& out, const AsPath& path) {
  std::size_t next = 0;
  bool first = true;
  for (const AsPath::Segment& s : path.segments) {
    if (!first) out += ' ';
    first = false;
    const bool set = s.type == AsPath::asSet || s.type == AsPath::asConfedSet;
    const char* brackets = s.type == AsPath::asSet          ? "{}"
                           : s.type == AsPath::asConfedSequence ? "()"
                           : s.type == AsPath::asConfedSet      ? "[]"
                                                                : nullptr;
    if (brackets) out += brackets[0];
    for (std::size_t i = 0; i < s.count && next + i < path.asns.size(); ++i) {
      if (i) out += set ? ',' : ' ';
      out.number(path.asns[next + i].value());
    }
    next += s.count;
    if (brackets) out += brackets[1];
  }
}

// RFC 1997's well-known communities by the names bgpdump gives them.
void appendCommunity(Text& out, U32 c) {
  switch (c) {
    case 0xFFFFFF01: out += "no-export"; return;
    case 0xFFFFFF02: out += "no-advertise"; return;
    case 0xFFFFFF03: out += "local-AS"; return;
    default:
      out.number(c >> 16);
      out += ':';
      out.number(c & 0xFFFF);
  }
}

const char* originName(const PathAttributes& a) {
  if (!a.origin) return "";
  switch (*a.origin) {
    case Origin::igp: return "IGP";
    case Origin::egp: return "EGP";
    case Origin::incomplete: return "INCOMPLETE";
  }
  return "";
}

// The next hop of a route: MP_REACH_NLRI's for an IPv6 prefix (its global address), NEXT_HOP's
// for an IPv4 one.
Netzo::IpGenAddr nextHopOf(const MrtRoute& r) {
  const PathAttributes& a = *r.attributes;
  if (r.prefix.family() == Netzo::AddressFamily::ipv6 || !a.nextHop) {
    if (a.mpReach && a.mpReach->nextHop.family() != Netzo::AddressFamily::ipUnknown) return a.mpReach->nextHop;
  }
  if (a.nextHop) return *a.nextHop;
  return {};
}

bool isEt(const MrtRecord& r) { return r.type == U16(MrtType::bgp4mpEt); }
bool isAddPath(const MrtRecord& r) {
  if (r.type == U16(MrtType::tableDumpV2)) {
    return r.subtype == MrtSubtype::ribIpv4UnicastAddPath || r.subtype == MrtSubtype::ribIpv6UnicastAddPath;
  }
  return r.type != U16(MrtType::tableDump) && r.subtype >= MrtSubtype::messageAddPath;
}

// The line kind and time stamp that open bgpdump's line: TABLE_DUMP|1209624298|,
// BGP4MP_ET|1795673982.123456|, BGP4MP_AP|...
void appendBgpdumpHead(Text& out, const MrtRecord& r) {
  switch (static_cast<MrtType>(r.type)) {
    case MrtType::tableDump: out += "TABLE_DUMP"; break;
    case MrtType::tableDumpV2: out += "TABLE_DUMP2"; break;
    default: out += isEt(r) ? "BGP4MP_ET" : "BGP4MP";
  }
  if (isAddPath(r)) out += "_AP";
  out += '|';
  out.number(r.timestamp);
  if (isEt(r)) out += fmt::format(".{:06}", r.microseconds);
  out += '|';
}

std::string timeText(U32 t) {
  const std::time_t tt = t;
  std::tm tm{};
  gmtime_r(&tt, &tm);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &tm);
  return text;
}

// One route as --json shows it.
struct RouteShown {
  Kelp::String type;                        // rib, announce, withdraw
  U32 time = 0;
  U32 microseconds = 0;
  Kelp::String peer;
  U32 peerAs = 0;
  Kelp::String prefix;
  U32 pathId = 0;
  tools::JsonMaybe<Kelp::String> asPath;
  tools::JsonMaybe<Kelp::String> origin;
  tools::JsonMaybe<Kelp::String> nextHop;
  tools::JsonMaybe<U32> localPref;
  tools::JsonMaybe<U32> med;
  tools::JsonList<Kelp::String> communities;
  tools::JsonList<Kelp::String> largeCommunities;
  bool atomicAggregate = false;
  tools::JsonMaybe<Kelp::String> aggregator;

  friend constexpr auto kelpType(Kelp::Tag<RouteShown>) {
    using S = RouteShown;
    return Kelp::valueType<S>(
        "tools::MrtRoute", Kelp::field("type", &S::type), Kelp::field("time", &S::time),
        Kelp::field("microseconds", &S::microseconds), Kelp::field("peer", &S::peer), Kelp::field("peerAs", &S::peerAs),
        Kelp::field("prefix", &S::prefix), Kelp::field("pathId", &S::pathId), Kelp::field("asPath", &S::asPath),
        Kelp::field("origin", &S::origin), Kelp::field("nextHop", &S::nextHop),
        Kelp::field("localPref", &S::localPref), Kelp::field("med", &S::med),
        Kelp::field("communities", &S::communities), Kelp::field("largeCommunities", &S::largeCommunities),
        Kelp::field("atomicAggregate", &S::atomicAggregate), Kelp::field("aggregator", &S::aggregator));
  }
};

struct StateShown {
  Kelp::String type = "state";
  U32 time = 0;
  U32 microseconds = 0;
  Kelp::String peer;
  U32 peerAs = 0;
  U32 oldState = 0;
  U32 newState = 0;

  friend constexpr auto kelpType(Kelp::Tag<StateShown>) {
    using S = StateShown;
    return Kelp::valueType<S>("tools::MrtStateChange", Kelp::field("type", &S::type), Kelp::field("time", &S::time),
                              Kelp::field("microseconds", &S::microseconds), Kelp::field("peer", &S::peer),
                              Kelp::field("peerAs", &S::peerAs), Kelp::field("oldState", &S::oldState),
                              Kelp::field("newState", &S::newState));
  }
};

const char* const kStateNames[] = {"?", "Idle", "Connect", "Active", "OpenSent", "OpenConfirm", "Established"};
const char* stateName(U16 s) { return s < std::size(kStateNames) ? kStateNames[s] : "?"; }

class Printer : public MrtVisitor {
 public:
  Printer(const MrtOptions& opt, Output& out, std::string file) : opt_(opt), out_(out), file_(std::move(file)) {
    for (const std::string& p : opt.prefixes) prefixes_.push_back(Netzo::IpGenPrefix::fromString(p));
    for (const std::string& p : opt.peers) peers_.push_back(Netzo::IpGenAddr::fromString(p));
  }
  std::size_t routes = 0, records = 0, damaged = 0;

  void route(const MrtRoute& r) override {
    ++routes;
    if (opt_.summary || !wanted(r.peer->address) || !wantedPrefix(r.prefix)) return;
    if (opt_.json) return json(r);
    if (opt_.bgpdump) return bgpdump(r);
    readable(r);
  }
  void peerIndexTable(const MrtPeerIndexTable&) override { peerText_.clear(); }
  void stateChange(const MrtStateChange& s) override {
    if (opt_.summary || !prefixes_.empty() || !wanted(s.peer.address)) return;
    Text& out = out_.text();
    if (opt_.json) {
      StateShown shown;
      shown.time = s.record->timestamp;
      shown.microseconds = s.record->microseconds;
      shown.peer = s.peer.address.stringValue();
      shown.peerAs = s.peer.asn.value();
      shown.oldState = s.oldState;
      shown.newState = s.newState;
      out += Kelp::valueToJson(shown);
    } else if (opt_.bgpdump) {
      appendBgpdumpHead(out, *s.record);
      out += "STATE|";
      appendBgpdumpAddress(out, s.peer.address);
      out += '|';
      out.number(s.peer.asn.value());
      out += '|';
      out.number(s.oldState);
      out += '|';
      out.number(s.newState);
    } else {
      out += fmt::format("{} state {} AS{} {} -> {}", timeText(s.record->timestamp), s.peer.address.stringValue(),
                         s.peer.asn.value(), stateName(s.oldState), stateName(s.newState));
    }
    out += '\n';
    out_.lineDone();
  }
  void damage(const MrtDamage& d) override {
    ++damaged;
    out_.flush();
    std::fflush(stdout);
    std::fprintf(stderr, "%s: %s\n", file_.c_str(), d.toStrep().c_str());
  }

 private:
  bool wanted(const Netzo::IpGenAddr& peer) const {
    if (peers_.empty()) return true;
    for (const auto& p : peers_)
      if (p == peer) return true;
    return false;
  }
  bool wantedPrefix(const Netzo::IpGenPrefix& prefix) const {
    if (prefixes_.empty()) return true;
    for (const auto& p : prefixes_)
      if (p == prefix) return true;
    return false;
  }

  // The line's start: kind and time, route kind, peer, prefix. A RIB record's lines share all
  // but the peer, and a peer's text is the same in every record: both are kept.
  void bgpdump(const MrtRoute& r) {
    Text& out = out_.text();
    const MrtRecord& rec = *r.record;
    const bool rib = rec.type == U16(MrtType::tableDumpV2);
    if (!rib || rec.offset != headRecord_) {
      head_.clear();
      appendBgpdumpHead(head_, rec);
      head_ += r.kind == MrtRoute::Kind::ribEntry ? "B|" : r.kind == MrtRoute::Kind::announce ? "A|" : "W|";
      headRecord_ = rec.offset;
      prefix_.clear();
      appendBgpdumpPrefix(prefix_, r.prefix);
    }
    out += std::string_view(head_.data(), head_.size());
    if (rib && r.peerIndex < peerText_.size() && peerText_[r.peerIndex].size() > 0) {
      out += std::string_view(peerText_[r.peerIndex].data(), peerText_[r.peerIndex].size());
    } else {
      Text peer;
      appendBgpdumpAddress(peer, r.peer->address);
      peer += '|';
      peer.number(r.peer->asn.value());
      peer += '|';
      out += std::string_view(peer.data(), peer.size());
      if (rib) {
        if (peerText_.size() <= r.peerIndex) peerText_.resize(r.peerIndex + 1, Text(0));
        peerText_[r.peerIndex] = peer;
      }
    }
    if (rib) {
      out += std::string_view(prefix_.data(), prefix_.size());
    } else {
      appendBgpdumpPrefix(out, r.prefix);
    }
    if (isAddPath(rec)) {
      out += '|';
      out.number(r.pathId);
    }
    if (r.kind == MrtRoute::Kind::withdraw) {
      out += '\n';
      return out_.lineDone();
    }
    const PathAttributes& a = *r.attributes;
    out += '|';
    if (a.asPath) {
      if (r.options->fourOctetAs || !a.as4Path) {
        appendAsPath(out, *a.asPath);
      } else {
        appendAsPath(out, a.fullAsPath(*r.options));
      }
    }
    out += '|';
    out += originName(a);
    out += '|';
    appendBgpdumpAddress(out, nextHopOf(r));
    out += '|';
    out.number(a.localPref ? *a.localPref : 0);
    out += '|';
    out.number(a.multiExitDisc ? *a.multiExitDisc : 0);
    out += '|';
    if (a.communities) {
      bool first = true;
      for (U32 c : *a.communities) {
        if (!first) out += ' ';
        first = false;
        appendCommunity(out, c);
      }
    }
    out += a.atomicAggregate ? "|AG|" : "|NAG|";
    if (const auto agg = a.fullAggregator(*r.options)) {
      out.number(agg->asn.value());
      out += ' ';
      appendAddress(out, agg->address);
    }
    out += "|\n";
    out_.lineDone();
  }

  void readable(const MrtRoute& r) {
    Text& out = out_.text();
    out += timeText(r.record->timestamp);
    out += r.kind == MrtRoute::Kind::ribEntry ? " rib " : r.kind == MrtRoute::Kind::announce ? " announce " : " withdraw ";
    appendAddress(out, r.peer->address);
    out += " AS";
    out.number(r.peer->asn.value());
    out += ' ';
    appendPrefix(out, r.prefix);
    if (isAddPath(*r.record)) out += fmt::format(" path-id {}", r.pathId);
    if (r.kind != MrtRoute::Kind::withdraw) {
      const PathAttributes& a = *r.attributes;
      out += " path ";
      appendAsPath(out, a.fullAsPath(*r.options));
      if (a.origin) out += fmt::format(" origin {}", stringValue(*a.origin));
      const Netzo::IpGenAddr hop = nextHopOf(r);
      if (hop.family() != Netzo::AddressFamily::ipUnknown) {
        out += " next-hop ";
        appendAddress(out, hop);
      }
      if (a.localPref) out += fmt::format(" local-pref {}", *a.localPref);
      if (a.multiExitDisc) out += fmt::format(" med {}", *a.multiExitDisc);
      if (a.communities) {
        out += " communities";
        for (U32 c : *a.communities) {
          out += ' ';
          appendCommunity(out, c);
        }
      }
      if (a.largeCommunities) {
        out += " large-communities";
        for (const LargeCommunity& c : *a.largeCommunities) {
          out += fmt::format(" {}:{}:{}", c.globalAdmin, c.localData1, c.localData2);
        }
      }
      if (a.atomicAggregate) out += " atomic-aggregate";
      if (const auto agg = a.fullAggregator(*r.options)) {
        out += fmt::format(" aggregator AS{} {}", agg->asn.value(), agg->address.stringValue());
      }
    }
    out += '\n';
    out_.lineDone();
  }

  void json(const MrtRoute& r) {
    RouteShown s;
    s.type = r.kind == MrtRoute::Kind::ribEntry ? "rib" : r.kind == MrtRoute::Kind::announce ? "announce" : "withdraw";
    s.time = r.record->timestamp;
    s.microseconds = r.record->microseconds;
    s.peer = r.peer->address.stringValue();
    s.peerAs = r.peer->asn.value();
    s.prefix = r.prefix.stringValue();
    s.pathId = r.pathId;
    if (r.kind != MrtRoute::Kind::withdraw) {
      const PathAttributes& a = *r.attributes;
      if (a.asPath) {
        Text path;
        appendAsPath(path, a.fullAsPath(*r.options));
        s.asPath.value = path.str();
      }
      if (a.origin) s.origin.value = stringValue(*a.origin);
      const Netzo::IpGenAddr hop = nextHopOf(r);
      if (hop.family() != Netzo::AddressFamily::ipUnknown) s.nextHop.value = hop.stringValue();
      if (a.localPref) s.localPref.value = *a.localPref;
      if (a.multiExitDisc) s.med.value = *a.multiExitDisc;
      if (a.communities) {
        for (U32 c : *a.communities) {
          Text text;
          appendCommunity(text, c);
          s.communities.items.push_back(text.str());
        }
      }
      if (a.largeCommunities) {
        for (const LargeCommunity& c : *a.largeCommunities) {
          s.largeCommunities.items.push_back(fmt::format("{}:{}:{}", c.globalAdmin, c.localData1, c.localData2));
        }
      }
      s.atomicAggregate = a.atomicAggregate.present;
      if (const auto agg = a.fullAggregator(*r.options)) {
        s.aggregator.value = fmt::format("{} {}", agg->asn.value(), agg->address.stringValue());
      }
    }
    out_.text() += Kelp::valueToJson(s);
    out_.text() += '\n';
    out_.lineDone();
  }

  const MrtOptions& opt_;
  Output& out_;
  std::string file_;
  Text head_, prefix_;           // of the RIB record at headRecord_
  U64 headRecord_ = ~U64{0};
  std::vector<Text> peerText_;   // "address|AS|" of each peer of the peer index table
  std::vector<Netzo::IpGenPrefix> prefixes_;
  std::vector<Netzo::IpGenAddr> peers_;
};

int runMrt(const MrtOptions& opt) {
  for (const std::string& p : opt.prefixes) {
    try {
      (void)Netzo::IpGenPrefix::fromString(p);
    } catch (const Kelp::RangeException& e) {
      std::fprintf(stderr, "--prefix: %s\n", e.what());
      return tools::exitUsage;
    }
  }
  for (const std::string& p : opt.peers) {
    try {
      (void)Netzo::IpGenAddr::fromString(p);
    } catch (const Kelp::RangeException& e) {
      std::fprintf(stderr, "--peer: %s\n", e.what());
      return tools::exitUsage;
    }
  }
  int status = tools::exitOk;
  Output out;
  for (const std::string& path : opt.files) {
    Printer printer(opt, out, path);
    try {
      MrtFile file(path);
      MrtDecoder decoder;
      MrtRecord record;
      while (file.next(record)) {
        ++printer.records;
        if (decoder.decode(record, printer).stopsReading) break;
      }
      if (file.damage()) printer.damage(file.damage());
    } catch (const MrtOpenError& e) {
      out.flush();
      std::fprintf(stderr, "%s\n", e.what());
      status = tools::exitFailure;
      continue;
    }
    if (printer.damaged > 0) status = tools::exitFailure;
    if (opt.summary) {
      out.text() += fmt::format("{}: {} records, {} routes, {} damaged\n", path, printer.records, printer.routes,
                                printer.damaged);
    }
  }
  out.flush();
  // The tool names the write error as it ends (with what the system said), once.
  if (out.failed() || std::fflush(stdout) != 0) return tools::exitFailure;
  return status;
}

tools::CommandRegistration reg("mrt", [](CLI::App& app) {
  static MrtOptions opt;
  auto* cmd = app.add_subcommand(
      "mrt",
      "Print the routes of MRT files (TABLE_DUMP, TABLE_DUMP_V2, BGP4MP; bzip2, gzip or plain), one line each; a "
      "damaged record is named on standard error with its offset, and the exit status is then 1");
  cmd->add_option("FILE", opt.files, "MRT files")->required();
  auto* json = cmd->add_flag("--json", opt.json, "One JSON object per route (and per state change)");
  auto* bgpdump = cmd->add_flag("--bgpdump", opt.bgpdump, "The lines `bgpdump -m` prints for the same files");
  auto* summary = cmd->add_flag("--summary", opt.summary, "Read everything; print only each file's counts");
  json->excludes(bgpdump)->excludes(summary);
  bgpdump->excludes(summary);
  cmd->add_option("--prefix", opt.prefixes, "Only routes of this prefix (repeatable)");
  cmd->add_option("--peer", opt.peers, "Only routes and state changes of this peer address (repeatable)");
  cmd->callback([] {
    if (const int status = runMrt(opt); status != tools::exitOk) tools::exitWith(static_cast<tools::ExitStatus>(status));
  });
});

}  // namespace

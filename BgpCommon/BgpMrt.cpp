#include "BgpCommon/BgpMrt.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fmt/format.h>

#include "BgpCommon/Bzip2Reader.h"

namespace Routing::Bgp {

// ---------------------------------------------------------------------------------------------
// Damage

std::string MrtDamage::toStrep() const {
  std::string out = fmt::format("{} at offset {}", stringValue(problem), offset);
  if (recordOffset != offset) out += fmt::format(" (record at {})", recordOffset);
  switch (problem) {
    case MrtProblem::truncatedRecord: out += fmt::format(": {} octets missing", detail); break;
    case MrtProblem::recordTooLong: out += fmt::format(": length {}", detail); break;
    case MrtProblem::peerIndexOutOfRange: out += fmt::format(": peer index {}", detail); break;
    case MrtProblem::badAttributes:
    case MrtProblem::badMessage: out += ": " + error.toStrep(); break;
    default: break;
  }
  if (stopsReading) out += "; reading stops";
  return out;
}

std::ostream& operator<<(std::ostream& os, const MrtDamage& d) { return os << d.toStrep(); }

// ---------------------------------------------------------------------------------------------
// Files

namespace {
constexpr std::size_t kInputSize = 256 << 10;   // compressed octets read at a time
constexpr std::size_t kWindowSize = 1 << 20;    // decompressed octets held at a time (at least)
}  // namespace

// A compressed file being decompressed: the file, and bzip2's reader or zlib's input buffer and
// decompressor.
struct MrtFile::Stream {
  int fd = -1;
  std::unique_ptr<Bzip2Reader> bzip2;
  std::vector<char> input;
  bool inputEnded = false;
  MrtProblem failure = MrtProblem::none;  // damaged, cut short or unreadable: nothing more comes
  z_stream z{};
  bool open = false;      // zlib's decompressor is initialised
  bool finished = false;  // the last stream ended with the file: nothing more to decompress

  ~Stream() {
    bzip2.reset();  // its workers stop before the file closes
    if (fd >= 0) ::close(fd);
  }
};

namespace {

std::string errnoText(const std::string& path, const char* what) {
  return fmt::format("{}: {}: {}", path, what, std::strerror(errno));
}

}  // namespace

MrtFile::MrtFile(std::span<const U8> octets) : mapped_(octets), end_(octets.size()) {}

MrtFile::MrtFile(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) throw MrtOpenError(errnoText(path, "cannot open"));
  struct stat st {};
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    ::close(fd);
    throw MrtOpenError(fmt::format("{}: not a regular file", path));
  }
  U8 magic[3] = {};
  const ssize_t got = ::pread(fd, magic, sizeof magic, 0);
  if (got < 0) {
    ::close(fd);
    throw MrtOpenError(errnoText(path, "cannot read"));
  }
  if (got == 3 && magic[0] == 'B' && magic[1] == 'Z' && magic[2] == 'h') {
    compression_ = Compression::bzip2;
  } else if (got >= 2 && magic[0] == 0x1f && magic[1] == 0x8b) {
    compression_ = Compression::gzip;
  }
  if (compression_ == Compression::none) {
    const std::size_t size = static_cast<std::size_t>(st.st_size);
    if (size > 0) {
      void* p = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
      if (p == MAP_FAILED) {
        ::close(fd);
        throw MrtOpenError(errnoText(path, "cannot map"));
      }
      ::madvise(p, size, MADV_SEQUENTIAL);
      mapped_ = {static_cast<const U8*>(p), size};
      unmap_ = true;
    }
    ::close(fd);
    end_ = mapped_.size();
    return;
  }
  stream_ = std::make_unique<Stream>();
  stream_->fd = fd;
  buffer_.resize(kWindowSize);
  if (compression_ == Compression::bzip2) {
    stream_->bzip2 = std::make_unique<Bzip2Reader>(fd);
    return;
  }
  stream_->input.resize(kInputSize);
  if (inflateInit2(&stream_->z, 15 + 16) != Z_OK) {  // 16: a gzip header and trailer
    throw MrtOpenError(path + ": zlib decompressor failed");
  }
  stream_->open = true;
}

MrtFile::~MrtFile() {
  if (unmap_) ::munmap(const_cast<U8*>(mapped_.data()), mapped_.size());
  if (stream_ && stream_->open) {
    inflateEnd(&stream_->z);
    stream_->open = false;
  }
}

// Makes at least `need` octets available from begin_ on, decompressing more; false when the
// stream ends (or fails) first.
bool MrtFile::fill(std::size_t need) {
  if (end_ - begin_ >= need) return true;
  if (!stream_ || streamEnded_) return false;
  Stream& s = *stream_;
  // Keep what is not consumed at the front; make room for the whole of what is needed.
  if (begin_ > 0) {
    std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
    end_ -= begin_;
    begin_ = 0;
  }
  if (buffer_.size() < need) buffer_.resize(need);
  if (s.bzip2) {
    while (end_ < need) {
      const std::size_t n = s.bzip2->read(buffer_.data() + end_, buffer_.size() - end_);
      end_ += n;
      if (n == 0) {
        const Bzip2Reader::Failure f = s.bzip2->failure();
        if (f != Bzip2Reader::Failure::none) {
          s.failure = f == Bzip2Reader::Failure::readFailed ? MrtProblem::readFailed : MrtProblem::badCompression;
        }
        break;
      }
    }
  }
  while (!s.bzip2 && end_ < need && !s.finished) {
    if (s.z.avail_in == 0 && !s.inputEnded) {
      ssize_t n;
      do n = ::read(s.fd, s.input.data(), s.input.size());
      while (n < 0 && errno == EINTR);
      if (n < 0) {
        s.failure = MrtProblem::readFailed;
        break;
      }
      if (n == 0) s.inputEnded = true;
      s.z.next_in = reinterpret_cast<Bytef*>(s.input.data()), s.z.avail_in = static_cast<uInt>(n);
    }
    const std::size_t room = buffer_.size() - end_;
    s.z.next_out = buffer_.data() + end_;
    s.z.avail_out = static_cast<uInt>(room);
    const int rc = inflate(&s.z, Z_NO_FLUSH);
    const std::size_t produced = room - s.z.avail_out;
    const bool streamEnd = rc == Z_STREAM_END;
    const bool error = rc != Z_OK && rc != Z_STREAM_END && !(rc == Z_BUF_ERROR && !s.inputEnded);
    end_ += produced;
    if (error) {
      s.failure = MrtProblem::badCompression;
      break;
    }
    if (streamEnd) {
      // Another stream may follow (files concatenated): start it afresh.
      if (s.z.avail_in == 0 && !s.inputEnded) {
        ssize_t n;
        do n = ::read(s.fd, s.input.data(), s.input.size());
        while (n < 0 && errno == EINTR);
        if (n <= 0) {
          if (n < 0) s.failure = MrtProblem::readFailed;
          s.inputEnded = s.finished = true;
          break;
        }
        s.z.next_in = reinterpret_cast<Bytef*>(s.input.data()), s.z.avail_in = static_cast<uInt>(n);
      } else if (s.z.avail_in == 0) {
        s.finished = true;
        break;
      }
      inflateReset(&s.z);
      continue;
    }
    if (produced == 0 && s.inputEnded && s.z.avail_in == 0) {
      s.failure = MrtProblem::badCompression;  // the stream stops before its end
      break;
    }
  }
  if (end_ >= need) return true;
  streamEnded_ = true;
  return false;
}

// A mapped file is read through a window: the pages ahead of the reader are mapped in a few
// megabytes at a time (one call instead of a fault per page), and those behind it given back, so
// that a long file does not stay resident. The file's pages stay in the page cache either way.
void MrtFile::slideWindow(std::size_t recordEnd) {
  constexpr std::size_t kWindow = 4 << 20;  // a multiple of the page size
  U8* base = const_cast<U8*>(mapped_.data());
  while (populated_ < mapped_.size() && populated_ < recordEnd + kWindow) {
    const std::size_t length = std::min(kWindow, mapped_.size() - populated_);
    ::madvise(base + populated_, length, MADV_POPULATE_READ);  // a hint: failure costs only faults
    populated_ += length;
  }
  const std::size_t done = begin_ / kWindow * kWindow;  // records before begin_ are no longer viewed
  if (done > released_) {
    ::madvise(base + released_, done - released_, MADV_DONTNEED);
    released_ = done;
  }
}

bool MrtFile::stop(MrtProblem problem, U64 at, U64 detail) {
  damage_ = MrtDamage{problem, at, offset_, {}, detail, true};
  begin_ = end_;
  streamEnded_ = true;
  return false;
}

bool MrtFile::next(MrtRecord& out) {
  if (damage_) return false;
  const U8* base = stream_ ? buffer_.data() : mapped_.data();
  auto cutShort = [&](std::size_t need) {
    const std::size_t have = end_ - begin_;
    if (stream_ && stream_->failure != MrtProblem::none) return stop(stream_->failure, offset_ + have);
    return stop(MrtProblem::truncatedRecord, offset_ + have, need - have);
  };
  if (!fill(mrtHeaderSize)) {
    if (end_ == begin_ && (!stream_ || stream_->failure == MrtProblem::none)) return false;  // the end
    return cutShort(mrtHeaderSize);
  }
  base = stream_ ? buffer_.data() : mapped_.data();
  Deserialize header({base + begin_, mrtHeaderSize});
  (void)header.readFields(out.timestamp, out.type, out.subtype, out.length);
  if (out.length > mrtMaxRecordLength) return stop(MrtProblem::recordTooLong, offset_ + 8, out.length);
  const std::size_t whole = mrtHeaderSize + std::size_t{out.length};
  if (!fill(whole)) return cutShort(whole);
  base = stream_ ? buffer_.data() : mapped_.data();
  if (unmap_) slideWindow(begin_ + whole);
  out.offset = offset_;
  out.body = {base + begin_ + mrtHeaderSize, out.length};
  out.microseconds = 0;
  if (out.type == U16(MrtType::bgp4mpEt) && out.length >= 4) {
    Deserialize us(out.body);
    (void)us.readU32(out.microseconds);
    out.body = out.body.subspan(4);
  }
  begin_ += whole;
  offset_ += whole;
  return true;
}

// ---------------------------------------------------------------------------------------------
// Decoding

namespace {

// Damage at octet `at` of the record's body.
MrtDamage damageAt(const MrtRecord& r, MrtProblem problem, std::size_t at, U64 detail = 0) {
  return MrtDamage{problem, r.bodyOffset(at), r.offset, {}, detail, problem == MrtProblem::lengthMismatch};
}

// The offset within the body where cursor `in` (over the whole body) stands.
std::size_t at(const Deserialize& in) { return in.offset(); }

bool readAddress(Deserialize& in, Netzo::IpGenAddr& out, bool ipv6) {
  if (ipv6) {
    Netzo::Ip6Addr a;
    if (!in.readIpv6Addr(a)) return false;
    out = a;
  } else {
    Netzo::IpAddr a;
    if (!in.readIpv4Addr(a)) return false;
    out = a;
  }
  return true;
}

}  // namespace

MrtDecoder::MrtDecoder() : attributes_(std::make_unique<PathAttributes>()), update_(std::make_unique<Update>()) {}
MrtDecoder::~MrtDecoder() = default;

void MrtDecoder::report(MrtVisitor& v, const MrtDamage& d) {
  ++damages_;
  if (!first_) first_ = d;
  v.damage(d);
}

// Reads attributes at body octets [from, from + size) into attributes_; reports a ReadError as
// damage and says whether the route stands (an attribute discarded leaves the rest standing).
bool MrtDecoder::readAttributes(const MrtRecord& r, std::size_t from, std::span<const U8> octets,
                                const SessionOptions& options, MrtVisitor& v) {
  Deserialize in(octets);
  const ReadError e = readPathAttributes(in, options, *attributes_);
  if (!e) return true;
  report(v, MrtDamage{MrtProblem::badAttributes, r.bodyOffset(from + e.offset), r.offset, e, 0, false});
  return e.action < ErrorAction::treatAsWithdraw;
}

MrtDamage MrtDecoder::decode(const MrtRecord& r, MrtVisitor& v) {
  first_ = {};
  MrtDamage d;
  switch (static_cast<MrtType>(r.type)) {
    case MrtType::tableDump:
      if (r.subtype == MrtSubtype::afiIpv4 || r.subtype == MrtSubtype::afiIpv6) d = decodeTableDump(r, v);
      else v.skipped(r);
      break;
    case MrtType::tableDumpV2:
      switch (r.subtype) {
        case MrtSubtype::peerIndexTable: d = decodePeerIndexTable(r, v); break;
        case MrtSubtype::ribIpv4Unicast:
        case MrtSubtype::ribIpv6Unicast:
        case MrtSubtype::ribIpv4UnicastAddPath:
        case MrtSubtype::ribIpv6UnicastAddPath: d = decodeRib(r, v); break;
        default: v.skipped(r);
      }
      break;
    case MrtType::bgp4mpEt:
      if (r.length < 4) {  // no room for the microsecond field: the length field is wrong
        d = MrtDamage{MrtProblem::lengthMismatch, r.offset + 8, r.offset, {}, 0, true};
        break;
      }
      [[fallthrough]];
    case MrtType::bgp4mp:
      switch (r.subtype) {
        case MrtSubtype::stateChange:
        case MrtSubtype::stateChangeAs4:
        case MrtSubtype::message:
        case MrtSubtype::messageAs4:
        case MrtSubtype::messageLocal:
        case MrtSubtype::messageAs4Local:
        case MrtSubtype::messageAddPath:
        case MrtSubtype::messageAs4AddPath:
        case MrtSubtype::messageLocalAddPath:
        case MrtSubtype::messageAs4LocalAddPath: d = decodeBgp4mp(r, v); break;
        default: v.skipped(r);
      }
      break;
    default: v.skipped(r);
  }
  // The decoders return record-level damage (the record skipped whole) and report the rest.
  if (d) report(v, d);
  return first_;
}

// TABLE_DUMP (RFC 6396 section 4.2): view, sequence, prefix, prefix length, status, originated
// time, peer address, peer AS (two octets), attribute length, attributes.
MrtDamage MrtDecoder::decodeTableDump(const MrtRecord& r, MrtVisitor& v) {
  const bool ipv6 = r.subtype == MrtSubtype::afiIpv6;
  Deserialize in(r.body);
  U16 view, sequence, peerAs, length;
  U8 prefixLength, status;
  U32 originated;
  Netzo::IpGenAddr prefixAddress;
  MrtPeer peer;
  if (!in.readFields(view, sequence) || !readAddress(in, prefixAddress, ipv6) ||
      !in.readFields(prefixLength, status, originated) || !readAddress(in, peer.address, ipv6) ||
      !in.readFields(peerAs, length)) {
    return damageAt(r, MrtProblem::lengthMismatch, at(in));
  }
  const std::size_t attributesAt = at(in);
  if (in.remaining() != length) return damageAt(r, MrtProblem::lengthMismatch, attributesAt - 2);
  if (prefixLength > (ipv6 ? 128 : 32)) return damageAt(r, MrtProblem::badRecord, ipv6 ? 20 : 8);
  peer.asn = Netzo::AutonomousSystem(peerAs);
  SessionOptions options;
  options.fourOctetAs = false;
  if (!readAttributes(r, attributesAt, in.rest(), options, v)) return {};
  MrtRoute route;
  route.record = &r;
  route.peer = &peer;
  route.originated = originated;
  route.prefix = Netzo::IpGenPrefix(prefixAddress, prefixLength);
  route.sequence = sequence;
  route.attributes = attributes_.get();
  route.options = &options;
  route.attributeOctets = in.rest();
  v.route(route);
  return {};
}

// PEER_INDEX_TABLE (RFC 6396 section 4.3.1): collector BGP id, view name, peer count, peers of
// a type octet (bit 0: IPv6 address, bit 1: four-octet AS), BGP id, address, AS.
MrtDamage MrtDecoder::decodePeerIndexTable(const MrtRecord& r, MrtVisitor& v) {
  Deserialize in(r.body);
  MrtPeerIndexTable table;
  U16 nameLength, count;
  std::span<const U8> name;
  if (!in.readIpv4Addr(table.collectorBgpId) || !in.readU16(nameLength) || !in.readBytes(name, nameLength) ||
      !in.readU16(count)) {
    return damageAt(r, MrtProblem::lengthMismatch, at(in));
  }
  table.viewName = {reinterpret_cast<const char*>(name.data()), name.size()};
  peers_.clear();
  havePeerTable_ = false;
  for (U16 i = 0; i < count; ++i) {
    U8 type;
    MrtPeer& p = peers_.emplace_back();
    if (!in.readFields(type, p.bgpId) || !readAddress(in, p.address, type & 1) ||
        !in.readAutonomousSystem(p.asn, type & 2)) {
      peers_.clear();
      return damageAt(r, MrtProblem::lengthMismatch, at(in));
    }
  }
  if (!in.atEnd()) {
    peers_.clear();
    return damageAt(r, MrtProblem::lengthMismatch, at(in));
  }
  havePeerTable_ = true;
  table.peers = peers_;
  v.peerIndexTable(table);
  return {};
}

// RIB_IPV4_UNICAST / RIB_IPV6_UNICAST (RFC 6396 section 4.3.2) and their add-path forms (RFC 8050
// section 4.1): sequence, prefix length and prefix, entry count, entries of peer index, originated
// time, [path identifier,] attribute length, attributes.
MrtDamage MrtDecoder::decodeRib(const MrtRecord& r, MrtVisitor& v) {
  const bool ipv6 = r.subtype == MrtSubtype::ribIpv6Unicast || r.subtype == MrtSubtype::ribIpv6UnicastAddPath;
  const bool addPath = r.subtype == MrtSubtype::ribIpv4UnicastAddPath || r.subtype == MrtSubtype::ribIpv6UnicastAddPath;
  Deserialize in(r.body);
  U32 sequence;
  Netzo::IpGenPrefix prefix;
  U16 count;
  if (!in.readU32(sequence)) return damageAt(r, MrtProblem::lengthMismatch, at(in));
  const std::size_t prefixAt = at(in);
  if (!in.readPrefix(prefix, ipv6 ? Netzo::AddressFamily::ipv6 : Netzo::AddressFamily::ipv4)) {
    return damageAt(r, in.failureRule() == ReadRule::badPrefixLength ? MrtProblem::badRecord : MrtProblem::lengthMismatch,
                    prefixAt);
  }
  if (!in.readU16(count)) return damageAt(r, MrtProblem::lengthMismatch, at(in));
  // The entries must fill the record exactly before any of them is believed.
  {
    const std::size_t entryHead = addPath ? 12 : 8;
    const std::size_t size = r.body.size();
    std::size_t p = at(in);
    for (U16 i = 0; i < count; ++i) {
      if (size - p < entryHead) return damageAt(r, MrtProblem::lengthMismatch, p);
      const std::size_t length = std::size_t{r.body[p + entryHead - 2]} << 8 | r.body[p + entryHead - 1];
      p += entryHead;
      if (size - p < length) return damageAt(r, MrtProblem::lengthMismatch, p - 2);
      p += length;
    }
    if (p != size) return damageAt(r, MrtProblem::lengthMismatch, p);
  }
  if (!havePeerTable_) return damageAt(r, MrtProblem::noPeerIndexTable, 0);
  SessionOptions options;
  options.fourOctetAs = true;
  options.mrtAbbreviatedMpReach = ipv6 ? ipv6UnicastAfiSafi : ipv4UnicastAfiSafi;
  MrtRoute route;
  route.record = &r;
  route.prefix = prefix;
  route.sequence = sequence;
  route.attributes = attributes_.get();
  route.options = &options;
  for (U16 i = 0; i < count; ++i) {
    const std::size_t entryAt = at(in);
    U16 peerIndex = 0, length = 0;
    U32 originated = 0, pathId = 0;
    (void)in.readFields(peerIndex, originated);
    if (addPath) (void)in.readU32(pathId);
    (void)in.readU16(length);
    const std::size_t attributesAt = at(in);
    std::span<const U8> attributes;
    (void)in.readBytes(attributes, length);
    if (peerIndex >= peers_.size()) {
      report(v, damageAt(r, MrtProblem::peerIndexOutOfRange, entryAt, peerIndex));
      continue;
    }
    if (!readAttributes(r, attributesAt, attributes, options, v)) continue;
    route.peer = &peers_[peerIndex];
    route.peerIndex = peerIndex;
    route.originated = originated;
    route.pathId = pathId;
    route.attributeOctets = attributes;
    v.route(route);
  }
  return {};
}

// BGP4MP (RFC 6396 section 4.4): peer AS, local AS (two octets, four in the _AS4 subtypes),
// interface index, AFI, peer address, local address; then old and new state for STATE_CHANGE,
// or a whole BGP message.
MrtDamage MrtDecoder::decodeBgp4mp(const MrtRecord& r, MrtVisitor& v) {
  const U16 st = r.subtype;
  const bool as4 = st == MrtSubtype::messageAs4 || st == MrtSubtype::stateChangeAs4 || st == MrtSubtype::messageAs4Local ||
                   st == MrtSubtype::messageAs4AddPath || st == MrtSubtype::messageAs4LocalAddPath;
  const bool state = st == MrtSubtype::stateChange || st == MrtSubtype::stateChangeAs4;
  const bool addPath = st >= MrtSubtype::messageAddPath;
  Deserialize in(r.body);
  MrtPeer peer;
  Netzo::IpGenAddr local;
  Netzo::AutonomousSystem localAs;
  U16 ifIndex, afi;
  if (!in.readAutonomousSystem(peer.asn, as4) || !in.readAutonomousSystem(localAs, as4) ||
      !in.readFields(ifIndex, afi)) {
    return damageAt(r, MrtProblem::lengthMismatch, at(in));
  }
  if (afi != afiIpv4 && afi != afiIpv6) return damageAt(r, MrtProblem::badRecord, at(in) - 2);
  if (!readAddress(in, peer.address, afi == afiIpv6) || !readAddress(in, local, afi == afiIpv6)) {
    return damageAt(r, MrtProblem::lengthMismatch, at(in));
  }
  if (state) {
    MrtStateChange change{&r, peer, local, localAs, 0, 0};
    if (!in.readFields(change.oldState, change.newState) || !in.atEnd()) {
      return damageAt(r, MrtProblem::lengthMismatch, at(in));
    }
    v.stateChange(change);
    return {};
  }
  const std::size_t messageAt = at(in);
  const std::span<const U8> octets = in.rest();
  SessionOptions options;
  options.fourOctetAs = as4;
  options.extendedMessage = true;  // a collector records what the session carried
  if (addPath) {
    for (AfiSafi a : {ipv4UnicastAfiSafi, ipv6UnicastAfiSafi, AfiSafi(afiIpv4, safiMulticast),
                      AfiSafi(afiIpv6, safiMulticast)}) {
      options.addPath.add(a);
    }
  }
  MessageHeader header;
  if (const ReadError e = readHeader(octets, options, header)) {
    if (e.rule == ReadRule::truncated) return damageAt(r, MrtProblem::lengthMismatch, messageAt + e.offset);
    return MrtDamage{MrtProblem::badMessage, r.bodyOffset(messageAt + e.offset), r.offset, e, 0, false};
  }
  if (header.length != octets.size()) return damageAt(r, MrtProblem::lengthMismatch, messageAt + 16);
  MrtMessage message{&r, peer, local, localAs, header.type, octets, &options};
  v.message(message);
  if (header.type != MessageType::update) return {};
  Update& u = *update_;
  if (const ReadError e = readUpdate(octets, options, u)) {
    report(v, MrtDamage{MrtProblem::badMessage, r.bodyOffset(messageAt + e.offset), r.offset, e, 0, false});
    // The routes of a message RFC 7606 would withdraw or worse are not the sender's meaning.
    if (e.action >= ErrorAction::treatAsWithdraw) return {};
  }
  MrtRoute route;
  route.record = &r;
  route.peer = &peer;
  route.originated = r.timestamp;
  route.attributes = &u.attributes;
  route.options = &options;
  // The attribute octets: after the withdrawn routes and the attribute length.
  {
    Deserialize m(octets.subspan(bgpHeaderSize));
    U16 withdrawnLength = 0, attributesLength = 0;
    (void)m.readU16(withdrawnLength);
    (void)m.skip(withdrawnLength);
    (void)m.readU16(attributesLength);
    (void)m.readBytes(route.attributeOctets, attributesLength);
  }
  auto each = [&](const NlriList& list, MrtRoute::Kind kind) {
    if (!list.typed()) return;
    route.kind = kind;
    for (const NlriEntry& n : list) {
      route.prefix = n.prefix;
      route.pathId = n.pathId;
      v.route(route);
    }
  };
  each(u.withdrawn, MrtRoute::Kind::withdraw);
  if (u.attributes.mpUnreach) each(u.attributes.mpUnreach->withdrawn, MrtRoute::Kind::withdraw);
  each(u.nlri, MrtRoute::Kind::announce);
  if (u.attributes.mpReach) each(u.attributes.mpReach->nlri, MrtRoute::Kind::announce);
  return {};
}

std::size_t readMrt(MrtFile& file, MrtDecoder& decoder, MrtVisitor& visitor) {
  const std::size_t before = decoder.damages();
  MrtRecord record;
  while (file.next(record)) {
    if (decoder.decode(record, visitor).stopsReading) return decoder.damages() - before;
  }
  if (file.damage()) {
    visitor.damage(file.damage());
    return decoder.damages() - before + 1;
  }
  return decoder.damages() - before;
}

}  // namespace Routing::Bgp

#pragma once
// MRT files (RFC 6396), the format route collectors publish their tables and update streams in,
// read record by record over the message reader.
//
// Two layers:
// - MrtFile gives the records of one file: bzip2 and gzip (told by their first octets) are
//   decompressed through fixed buffers (bzip2 blocks on every core, Bzip2Reader), a plain file is
//   mapped, octets in memory are read in place. Memory does not grow with the file: a record is a view into a buffer that the
//   next record reuses (a record longer than the buffer grows it once, up to mrtMaxRecordLength).
// - MrtDecoder turns records into what they carry: the peer index table, routes (one per RIB
//   entry, per prefix an UPDATE announces or withdraws), session state changes and other BGP
//   messages, handed to an MrtVisitor. Path attributes are read by readPathAttributes into one
//   PathAttributes object reused from route to route, so decoding an ordinary record allocates
//   nothing.
//
//   Routing::Bgp::MrtFile file("rib.20140523.0600.bz2");   // throws MrtOpenError
//   struct Print : Routing::Bgp::MrtVisitor {
//     void route(const Routing::Bgp::MrtRoute& r) override { std::cout << r.prefix << '\n'; }
//     void damage(const Routing::Bgp::MrtDamage& d) override { std::cerr << d << '\n'; }
//   } print;
//   Routing::Bgp::MrtDecoder decoder;
//   std::size_t damaged = Routing::Bgp::readMrt(file, decoder, print);
//
// Record types read:
// - TABLE_DUMP (12): AFI_IPv4 and AFI_IPv6 entries, two-octet AS numbers throughout.
// - TABLE_DUMP_V2 (13): PEER_INDEX_TABLE, RIB_IPV4_UNICAST, RIB_IPV6_UNICAST and their add-path
//   forms RIB_IPV4_UNICAST_ADDPATH / RIB_IPV6_UNICAST_ADDPATH (RFC 8050). Attributes carry four-octet
//   AS numbers and MP_REACH_NLRI abbreviated to its next hop (RFC 6396 section 4.3.4).
// - BGP4MP (16) and BGP4MP_ET (17, a microsecond field after the header): STATE_CHANGE,
//   STATE_CHANGE_AS4, MESSAGE, MESSAGE_AS4, MESSAGE_LOCAL, MESSAGE_AS4_LOCAL and the _ADDPATH forms
//   of the messages (RFC 8050: every IPv4/IPv6 NLRI of the message carries a path identifier).
// Other types and subtypes are skipped (MrtVisitor::skipped), which is not damage.
//
// Damage is data, never a crash: a record cut short, a record whose content does not fill its
// length exactly, a peer index past the peer table, attributes or a message the reader refuses, a
// compressed stream that is damaged or stops early. Each comes to MrtVisitor::damage with the file
// offset where it lies (for a compressed file, the offset in the decompressed stream). A record
// whose own fields are wrong is skipped and reading goes on where its length says the next one
// starts; where the length itself cannot be trusted (the content runs past it or stops short of
// it, or the file ends inside it) reading stops there.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <ostream>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "BgpCommon/BgpMessage.h"
#include "BgpCommon/BgpPathAttributes.h"
#include "platform/Netzo/AutonomousSystem.h"
#include "platform/Netzo/IpAddr.h"
#include "platform/Netzo/IpGenPrefix.h"

namespace Routing::Bgp {

// Record types and subtypes (IANA "Multi-threaded Routing Toolkit (MRT)").
enum class MrtType : U16 { tableDump = 12, tableDumpV2 = 13, bgp4mp = 16, bgp4mpEt = 17 };
namespace MrtSubtype {
// TABLE_DUMP: the AFI of the entry.
inline constexpr U16 afiIpv4 = 1, afiIpv6 = 2;
// TABLE_DUMP_V2.
inline constexpr U16 peerIndexTable = 1, ribIpv4Unicast = 2, ribIpv4Multicast = 3, ribIpv6Unicast = 4,
                     ribIpv6Multicast = 5, ribGeneric = 6, ribIpv4UnicastAddPath = 8, ribIpv6UnicastAddPath = 10;
// BGP4MP and BGP4MP_ET.
inline constexpr U16 stateChange = 0, message = 1, messageAs4 = 4, stateChangeAs4 = 5, messageLocal = 6,
                     messageAs4Local = 7, messageAddPath = 8, messageAs4AddPath = 9, messageLocalAddPath = 10,
                     messageAs4LocalAddPath = 11;
}  // namespace MrtSubtype

inline constexpr U32 mrtHeaderSize = 12;  // timestamp, type, subtype, length
// The longest record read. A TABLE_DUMP_V2 record of one prefix seen by thousands of peers stays
// far below; a length above this is taken for damage (reading stops: the framing is lost).
inline constexpr U32 mrtMaxRecordLength = 16u << 20;

// One record: its header and a view of its body, valid until the file's next record.
struct MrtRecord {
  U64 offset = 0;         // of the record's header in the file (decompressed)
  U32 timestamp = 0;      // seconds since 1970
  U32 microseconds = 0;   // BGP4MP_ET's microsecond field; 0 for the other types
  U16 type = 0;
  U16 subtype = 0;
  U32 length = 0;         // the header's length field (BGP4MP_ET: the microsecond field included)
  std::span<const U8> body;  // after the header (and after the microsecond field)
  // The file offset of octet `i` of the body.
  U64 bodyOffset(std::size_t i = 0) const {
    return offset + mrtHeaderSize + (type == U16(MrtType::bgp4mpEt) && length >= 4 ? 4 : 0) + i;
  }
};

// What was wrong.
KELP_ENUM(enum class, MrtProblem, U8, "Routing::Bgp::MrtProblem", named,
          none = 0,
          truncatedRecord,      // the file ends inside a record (or its header)
          recordTooLong,        // a length above mrtMaxRecordLength
          lengthMismatch,       // the record's content runs past its length, or stops short of it
          badRecord,            // a field out of range (a prefix length, an address family, a count)
          peerIndexOutOfRange,  // a RIB entry names a peer the peer index table does not have
          noPeerIndexTable,     // a RIB record before any PEER_INDEX_TABLE
          badAttributes,        // the path attributes broke a rule (`error` says which)
          badMessage,           // the BGP message of a BGP4MP record broke a rule (`error` says which)
          badCompression,       // the compressed stream is damaged or stops early
          readFailed)           // the file could not be read (an I/O error)

// One damage: what, where, and whether reading went on after it.
struct MrtDamage {
  MrtProblem problem = MrtProblem::none;
  U64 offset = 0;         // file offset (decompressed) of the damaged field or record
  U64 recordOffset = 0;   // file offset of the record it is in
  ReadError error;        // badAttributes, badMessage: the reader's error (its offset within the
                          // attributes or the message)
  U64 detail = 0;         // truncatedRecord: octets missing; peerIndexOutOfRange: the index;
                          // recordTooLong: the length
  bool stopsReading = false;  // the framing is lost: no record after this one is read

  explicit operator bool() const { return problem != MrtProblem::none; }
  // "peerIndexOutOfRange at offset 4711 (record at 4690): peer 12 of 10"-like text, one line.
  std::string toStrep() const;
};
std::ostream& operator<<(std::ostream& os, const MrtDamage& d);

// A file that cannot be opened or is not an MRT file this reads: the message names the path.
struct MrtOpenError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// The records of one MRT file.
class MrtFile {
 public:
  enum class Compression : U8 { none, bzip2, gzip };

  // Opens `path`; throws MrtOpenError when it cannot be opened or read.
  explicit MrtFile(const std::string& path);
  // The records in `octets` (not compressed), read in place: `octets` must outlive the file.
  explicit MrtFile(std::span<const U8> octets);
  ~MrtFile();
  MrtFile(const MrtFile&) = delete;
  MrtFile& operator=(const MrtFile&) = delete;

  // The next record into `out`; false at the end of the file or where reading stops (damage()
  // then says why). The record's body stays valid until the next call.
  bool next(MrtRecord& out);
  // Why reading stopped, if it stopped early (stopsReading is set).
  const MrtDamage& damage() const { return damage_; }
  Compression compression() const { return compression_; }
  // The decompressed octets read so far.
  U64 offset() const { return offset_; }

 private:
  struct Stream;
  bool fill(std::size_t need);
  bool stop(MrtProblem problem, U64 at, U64 detail = 0);

  Compression compression_ = Compression::none;
  std::unique_ptr<Stream> stream_;  // compressed files
  std::span<const U8> mapped_;      // plain files and memory: the whole file
  bool unmap_ = false;              // mapped here (a plain file), not given
  std::size_t populated_ = 0;       // mapped files: pages before this are mapped in ...
  std::size_t released_ = 0;        // ... and those before this given back
  void slideWindow(std::size_t recordEnd);
  // The window of decompressed octets not consumed yet: buffer_[begin_, end_) is file octets
  // offset_ onwards.
  std::vector<U8> buffer_;
  std::size_t begin_ = 0, end_ = 0;
  U64 offset_ = 0;
  bool streamEnded_ = false;
  MrtDamage damage_;
};

// A peer of the peer index table (or, for TABLE_DUMP and BGP4MP, of the record itself).
struct MrtPeer {
  Netzo::IpAddr bgpId;
  Netzo::IpGenAddr address;
  Netzo::AutonomousSystem asn;
};

// TABLE_DUMP_V2's PEER_INDEX_TABLE.
struct MrtPeerIndexTable {
  Netzo::IpAddr collectorBgpId;
  std::string_view viewName;  // a view into the record
  std::span<const MrtPeer> peers;
};

// One route: a RIB entry, or one prefix an UPDATE announces or withdraws.
struct MrtRoute {
  enum class Kind : U8 { ribEntry, announce, withdraw };
  const MrtRecord* record = nullptr;
  Kind kind = Kind::ribEntry;
  const MrtPeer* peer = nullptr;      // for TABLE_DUMP_V2, an entry of the peer index table
  U16 peerIndex = 0;                  // TABLE_DUMP_V2: the entry's peer index
  U32 originated = 0;                 // RIB entries: when the route was learnt; announce/withdraw:
                                      // the record's timestamp
  Netzo::IpGenPrefix prefix;
  U32 pathId = 0;                     // add-path identifier (add-path forms), else 0
  U32 sequence = 0;                   // TABLE_DUMP_V2 and TABLE_DUMP: the record's sequence number
  // The attributes (withdraw: those of the UPDATE, usually none), read with `options`; valid
  // during the visitor's call. `attributeOctets` are the attribute octets as they lie in the file.
  const PathAttributes* attributes = nullptr;
  const SessionOptions* options = nullptr;
  std::span<const U8> attributeOctets;
};

// A BGP4MP STATE_CHANGE (RFC 4271 section 8.2.2 states: 1 Idle ... 6 Established).
struct MrtStateChange {
  const MrtRecord* record = nullptr;
  MrtPeer peer;
  Netzo::IpGenAddr localAddress;
  Netzo::AutonomousSystem localAs;
  U16 oldState = 0, newState = 0;
};

// A BGP4MP message record, before its routes: the peers and the message as read.
struct MrtMessage {
  const MrtRecord* record = nullptr;
  MrtPeer peer;
  Netzo::IpGenAddr localAddress;
  Netzo::AutonomousSystem localAs;
  MessageType type = MessageType::keepalive;
  std::span<const U8> octets;         // the whole BGP message, header included
  const SessionOptions* options = nullptr;
};

// What the decoder finds, in file order. Every call's arguments are valid during the call only.
class MrtVisitor {
 public:
  virtual ~MrtVisitor() = default;
  virtual void peerIndexTable(const MrtPeerIndexTable&) {}
  // Before the routes of a BGP4MP message record (any message type).
  virtual void message(const MrtMessage&) {}
  virtual void route(const MrtRoute&) {}
  virtual void stateChange(const MrtStateChange&) {}
  // A record of a type or subtype this does not read.
  virtual void skipped(const MrtRecord&) {}
  virtual void damage(const MrtDamage&) {}
};

// Decodes records; keeps the peer index table of the file and the objects reused from record to
// record. One decoder per file (a second file's RIB records would name the first one's peers).
class MrtDecoder {
 public:
  MrtDecoder();
  ~MrtDecoder();
  // Decodes `record` into `visitor`, reporting every damage in it to visitor.damage; returns the
  // first (none when it read whole). A damaged RIB entry is skipped, the rest of the record read
  // on; a record whose fields are wrong is skipped whole.
  MrtDamage decode(const MrtRecord& record, MrtVisitor& visitor);
  // The peers of the last PEER_INDEX_TABLE read.
  std::span<const MrtPeer> peers() const { return peers_; }
  // Damages reported so far.
  std::size_t damages() const { return damages_; }

 private:
  void report(MrtVisitor& v, const MrtDamage& d);
  bool readAttributes(const MrtRecord& r, std::size_t from, std::span<const U8> octets, const SessionOptions& options,
                      MrtVisitor& v);
  MrtDamage decodeTableDump(const MrtRecord& r, MrtVisitor& v);
  MrtDamage decodePeerIndexTable(const MrtRecord& r, MrtVisitor& v);
  MrtDamage decodeRib(const MrtRecord& r, MrtVisitor& v);
  MrtDamage decodeBgp4mp(const MrtRecord& r, MrtVisitor& v);

  std::vector<MrtPeer> peers_;
  bool havePeerTable_ = false;
  std::unique_ptr<PathAttributes> attributes_;
  std::unique_ptr<Update> update_;
  MrtDamage first_;  // of the record being decoded
  std::size_t damages_ = 0;
};

// Reads every record of `file` through `decoder` into `visitor`, and reports the damage that
// stops the file, if any; returns the number of damages reported.
std::size_t readMrt(MrtFile& file, MrtDecoder& decoder, MrtVisitor& visitor);

}  // namespace Routing::Bgp

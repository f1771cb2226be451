#pragma once
// Route keys and their per-family dedup tables.
//
// A route key names one destination (one NLRI) of one address family. Keys are interned: each
// AFI/SAFI has one RouteKeyDedupTableBase, and every distinct key value exists there as exactly one
// shared, reference-counted object. Two interned keys of one table are therefore equal exactly when
// they are the same object, so route maps compare keys by address and order them with lessThan().
// A key leaves its table as soon as nobody but the table refers to it; interning the value again
// later makes a new object.
//
// RouteKeyBase is abstract: the concrete families (IPv4 and IPv6 unicast in BgpIpv4Plugin.h and
// BgpIpv6Plugin.h) give the fields, hash and equality, the text, the trace record and the order.
// Keys live in the stash heap, beside their table's hash table.
//
//   auto table = Routing::Bgp::IpPlugin::ipv4RouteKeyDedupTableFactory(/*multiThreaded=*/false);
//   auto key = table->dedupFromIpGenPrefix(Netzo::IpGenPrefix::fromString("10.0.0.0/8"));
//   Routing::Bgp::toStrep(key.get());   // "10.0.0.0/8"

#include <cstdint>
#include <ostream>

#include "platform/Brim/KelpStash.h"
#include "platform/Kelp/Ptr.h"
#include "platform/Kelp/TextForm.h"
#include "platform/Routing/AfiSafi.h"
#include "platform/Trackle/RingBuf.h"

namespace Routing::Bgp {

class RouteKeyDedupTableBase;

class RouteKeyBase : public KelpStash::DedupHandleWithTableInHeap {
 public:
  // The family of the key. The base versions fail "0 && \"Must override in derived class\"".
  virtual Afi afi() const;
  virtual Safi safi() const;
  virtual NlriType nlriType() const;
  // Writes the key's text (the body of toStrep and of operator<<).
  virtual void formatDerivedType(std::ostream& os) const = 0;
  // Writes the key without its VRF qualification.
  virtual void formatWithoutVrf(std::ostream& os) const = 0;
  // The key's text, written through operator<< into a string stream.
  virtual Kelp::String toStrepImpl() const;
  // Appends the key's binary trace record at the ring buffer's write cursor.
  virtual void qtPut(Trackle::RingBuf* ring) const;
  // Key order among keys of one table: the order of routes in sorted route tables.
  virtual bool lessThan(const Kelp::Ptr<const RouteKeyBase>& arg) const;

  // safi() in the high 16 bits, the low 16 bits of afi() in the low ones.
  AfiSafi afiSafi() const;
  AfiSafi afisafi() const { return afiSafi(); }
  // The same as Routing::Bgp::toStrep(this).
  Kelp::String toStrep() const;
  // The dedup hash table that holds the key; null while not interned.
  const Brim::DedupHashTable* dedupTable() const { return getDedupHashTable(); }
  // The interned key equal to this one: an equal key already in `table`, or this key, inserted.
  Kelp::Ptr<const RouteKeyBase> dedup(const RouteKeyDedupTableBase* table);
};

// "NULL" for a null key, otherwise the key's toStrepImpl().
Kelp::String toStrep(const RouteKeyBase* key);
// Writes "NULL" or the key's text; the stream's formatting state is the same afterwards.
std::ostream& operator<<(std::ostream& os, const RouteKeyBase* key);

// The dedup table of one address family: the family, whether several threads may share it, and
// the interning set (in the stash heap), created at construction.
class RouteKeyDedupTableBase : public Kelp::PtrInterface {
 public:
  RouteKeyDedupTableBase(AfiSafi afiSafi, bool multiThreaded);

  AfiSafi afiSafi() const { return afiSafi_; }
  bool multiThreaded() const { return multiThreaded_; }
  const Kelp::Ptr<KelpStash::DedupHashTableUnorderedSet>& hashTable() const { return hashTable_; }
  // The number of keys interned.
  std::size_t size() const { return hashTable_->size(); }

  // (Re)creates the interning set for the table's multiThreaded setting.
  void handleInitializedBase();

 private:
  AfiSafi afiSafi_;     // the family of every key in the table
  bool multiThreaded_;  // selects a set that takes its lock, for use by several threads
  Kelp::Ptr<KelpStash::DedupHashTableUnorderedSet> hashTable_;  // never null after construction
};

}  // namespace Routing::Bgp

#pragma once
// IP unicast route keys and their dedup tables, one class template over the address family.
//
// IpRouteKey<Family> is the interned object for one prefix: the family's content record (the
// address as the family stores it, and the prefix length) in the stash heap. Keys are only
// obtained through a table, so each prefix exists once per table. The content record is the key's
// identity: the key hashes and compares exactly as a record on the stack does, so a lookup by
// record finds its key without allocating.
//
// A family states what differs between IPv4 and IPv6 (BgpIpv4Plugin.h, BgpIpv6Plugin.h):
//   Content                    the content record (Ipv4RouteKeyContent, Ipv6RouteKeyContent)
//   Stored                     the address as the record stores it (a network-order word, a buffer)
//   kAfiSafi, kName            the family (AFI n, SAFI 1) and its name in messages ("IPv4")
//   stored(content)            the stored address of a record
//   holds(address)             whether a generic address is of the family
//   contentOf(prefix)          the record of a prefix of the family
//   qtPut(ring, content)       the address part of the binary trace record
//
// The address is kept as given (not masked to the length): callers pass canonical prefixes. Keys
// order by address, then shorter prefix first (lessThan).

#include <concepts>
#include <cstdint>

#include "BgpCommon/BgpIpPluginBase.h"
#include "platform/Kelp/Exception.h"
#include "platform/Pico/Assert.h"
#include "platform/Pico/Format.h"

namespace Routing::Bgp::IpPlugin {

template <typename Family>
class IpRouteKey final : public IpRouteKeyBase {
 public:
  using Content = typename Family::Content;
  using Stored = typename Family::Stored;

  IpRouteKey(const Stored& address, std::uint8_t prefixLength) : content_(address, prefixLength) {}

  std::uint8_t prefixLength() const { return content_.prefixLength; }
  // The stored address under its family's name: a network-order word for IPv4, the 16-octet
  // buffer for IPv6.
  Stored addressNbo() const requires std::same_as<Stored, std::uint32_t> { return Family::stored(content_); }
  const Stored& addressBuf() const requires(!std::same_as<Stored, std::uint32_t>) { return Family::stored(content_); }
  auto address() const { return content_.addr(); }
  const Content& routeKeyContent() const { return content_; }
  Netzo::IpGenPrefix prefix() const override { return Netzo::IpGenPrefix(address(), prefixLength()); }

  Afi afi() const override { return Family::kAfiSafi.afi(); }
  // Not provided for IP unicast: "0 && \"Not implemented\"", reported from the family's own file
  // (BgpCommon/BgpIpv4Plugin, BgpCommon/BgpIpv6Plugin), where users of a family look for it.
  NlriType nlriType() const override { notImplemented(__LINE__, __PRETTY_FUNCTION__); }
  void formatWithoutVrf(std::ostream&) const override { notImplemented(__LINE__, __PRETTY_FUNCTION__); }

  // The identity is the content record's: its hash, and its equality against another key or a
  // record on the stack.
  std::uint32_t hash() const override { return content_.hash(); }
  bool compare(const Brim::DedupHandleBase* other) const override {
    return static_cast<const IpRouteKey*>(other)->content_ == content_;
  }
  bool compareByContent(const Brim::DedupContentHandle& content) const override {
    return static_cast<const Content&>(content) == content_;
  }

  // The family's address part, then 1 octet of length.
  void qtPut(Trackle::RingBuf* ring) const override {
    Family::qtPut(ring, content_);
    ring->put8(prefixLength());
  }
  // Assert "dedupTable() == arg->dedupTable()"; then by address, then shorter first; a key
  // against itself answers true.
  bool lessThan(const Kelp::Ptr<const RouteKeyBase>& arg) const override {
    PICO_ASSERT(dedupTable() == arg->dedupTable());
    auto* o = static_cast<const IpRouteKey*>(arg.get());
    if (!(Family::stored(content_) == Family::stored(o->content_))) return address() < o->address();
    if (prefixLength() != o->prefixLength()) return prefixLength() < o->prefixLength();
    // Equal values are one interned object: only a key compared with itself gets here.
    return true;
  }

  // The interned key with this content, created when absent. Hashes the record on the stack and
  // allocates only for a new prefix.
  static Kelp::Ptr<const IpRouteKey> dedupContent(const IpRouteKeyDedupTableBase& table, const Content& content) {
    return table.hashTable()->template findOrDedupAs<const IpRouteKey>(content, content.hash(), &alloc);
  }
  static Kelp::Ptr<const IpRouteKey> dedupContent(const Kelp::Ptr<const IpRouteKeyDedupTableBase>& table,
                                                  const Content& content) {
    return dedupContent(*table, content);
  }
  // The allocation callback of the table's find-or-insert: a new key from the record's fields.
  static Brim::DedupHandleBase* alloc(const Brim::DedupContentHandle& content) {
    auto& c = static_cast<const Content&>(content);
    return new IpRouteKey(Family::stored(c), c.prefixLength);
  }
  // The same object viewed as a key of the family (unchecked).
  static const IpRouteKey* fromDedupHandle(const Brim::DedupHandleBase* handle) {
    return static_cast<const IpRouteKey*>(handle);
  }
  // A new key, not interned until passed to dedup().
  static Kelp::Ptr<IpRouteKey> factory(const Stored& address, std::uint8_t prefixLength) {
    return Kelp::makePtr<IpRouteKey>(address, prefixLength);
  }

 private:
  [[noreturn]] static void notImplemented(unsigned line, const char* function) {
    ::Pico::assertFail("0 && \"Not implemented\"", Family::kSourceName, line, function);
  }
  Content content_;  // the length is not checked against the address
};

template <typename Family>
class IpRouteKeyDedupTable final : public IpRouteKeyDedupTableBase {
 public:
  explicit IpRouteKeyDedupTable(bool multiThreaded) : IpRouteKeyDedupTableBase(Family::kAfiSafi, multiThreaded) {}

  Kelp::Ptr<const IpRouteKeyBase> dedupFromIpGenPrefix(const Netzo::IpGenPrefix& prefix) const override {
    if (!Family::holds(prefix.address())) {
      Pico::fmthrow<Kelp::RangeException>("dedupFromIpGenPrefix: {} is not an {} prefix", prefix.stringValue(),
                                          Family::kName);
    }
    PICO_FMTRACE(Pico::kTraceLevelOperational, "dedup {}", prefix.stringValue());
    return IpRouteKey<Family>::dedupContent(*this, Family::contentOf(prefix));
  }

  static Kelp::Ptr<IpRouteKeyDedupTable> factory(bool multiThreaded) {
    return Kelp::makePtr<IpRouteKeyDedupTable>(multiThreaded);
  }
};

}  // namespace Routing::Bgp::IpPlugin

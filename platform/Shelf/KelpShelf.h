#pragma once
// KelpShelf: typed collections of framework values in Shelf tables.
//
// A CollectionControl owns one table in one role: the writer (it created the file) or a reader (it
// attaches to whatever file the path holds, now or later). It carries the table's corruption
// handler and tells a Listener (the owning entity) which keys changed.
//
// Collection<K, V> is the thin typed front on a control: keys become bytes through
// KeyCodec<K> (which also hashes them), values through V's own serialize/deserialize, and every
// operation is one call of the byte-level core. A value type offers:
//   static constexpr std::uint32_t maxSerializedLen;       // largest serializeLen()
//   std::uint32_t serializeLen() const;
//   void serialize(std::uint8_t* out) const;              // writes serializeLen() bytes
//   static V deserialize(std::span<const std::uint8_t>);  // throws Kelp::RangeException
// and a key type a KeyCodec specialization:
//   template <> struct KelpShelf::KeyCodec<Id> {
//     static constexpr std::uint32_t maxSize = 4;
//     static std::uint32_t encode(const Id&, std::uint8_t* out);  // returns the length
//     static Id decode(Shelf::Bytes);
//     static std::uint32_t hash(const Id&);
//   };
//
//   KelpShelf::Collection<IgpResultId, IgpResult> results;
//   results.controlIs(control);
//   results.set(r.key, r);
//   std::optional<IgpResult> back = results.find(IgpResultId(7));

#include <concepts>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <fmt/format.h>

#include "platform/Kelp/Ptr.h"
#include "platform/Kelp/TextForm.h"
#include "platform/Pico/Assert.h"
#include "platform/Shelf/Shelf.h"

namespace KelpShelf {

template <typename K>
struct KeyCodec;

class CollectionControl : public Kelp::PtrInterface {
 public:
  enum class Mode : std::uint8_t { writer, reader };

  // What the owner of a collection hears about it: each change as the reader polls it (see
  // Shelf::Change). On the writer's side the collection tells its owner itself.
  class Listener {
   public:
    virtual ~Listener() = default;
    virtual void onChange(const Shelf::Change& change) = 0;
  };

  // Creates the table file; Kelp::RangeException / Shelf::Exception as Shelf::Writer::create.
  static Kelp::Ptr<CollectionControl> writerFor(const Shelf::Location& where, const Shelf::Labels& labels,
                                                const Shelf::Geometry& geometry);
  static Kelp::Ptr<CollectionControl> readerFor(const Shelf::Location& where, const Shelf::Labels& labels,
                                                std::uint32_t keyMax, std::uint32_t valueMax);

  Mode mode() const { return writer_ ? Mode::writer : Mode::reader; }
  const Kelp::String& name() const { return labels_.collectionName; }
  const Shelf::Labels& labels() const { return labels_; }
  const Shelf::Location& location() const { return where_; }
  Shelf::Writer* writer() const { return writer_.get(); }
  Shelf::Reader* reader() const { return reader_.get(); }
  std::uint32_t capacity() const;
  std::uint32_t occupancy() const;
  std::uint64_t scalar(std::uint32_t index) const;
  // Writer only.
  void scalarIs(std::uint32_t index, std::uint64_t value);

  // Every corruption found in the table goes here. The default writes the message to stderr. Set it
  // before the collection is read from several threads; it may then be called from any of them.
  void corruptionHandlerIs(Shelf::CorruptionHandler handler);
  void corruption(std::string_view message) const;

  Listener* listener() const { return listener_; }
  void listenerIs(Listener* l) { listener_ = l; }

  // Reader only: hands every change since the last call to the listener; returns how many.
  std::size_t poll();
  // Reader only: waits up to `seconds` for a change; true when poll() has something.
  bool waitForChanges(double seconds);

 private:
  CollectionControl(Shelf::Location where, Shelf::Labels labels);

  Shelf::Location where_;
  Shelf::Labels labels_;
  std::unique_ptr<Shelf::Writer> writer_;
  std::unique_ptr<Shelf::Reader> reader_;
  Shelf::CorruptionHandler handler_;
  Listener* listener_ = nullptr;  // the owner; it clears this when it goes away
};

// The writer met a damaged table: hand the message to the handler and stop, since continuing to
// write through damaged chains could only spread the damage.
[[noreturn]] void writerMetCorruption(const CollectionControl& control, const Shelf::CorruptionException& e);

template <typename K, typename V>
class Collection {
 public:
  static constexpr std::uint32_t kKeyMax = KeyCodec<K>::maxSize;
  static constexpr std::uint32_t kValueMax = V::maxSerializedLen;

  const Kelp::Ptr<CollectionControl>& control() const { return control_; }
  void controlIs(Kelp::Ptr<CollectionControl> c) {
    reader_ = c ? c->reader() : nullptr;
    control_ = std::move(c);
  }

  // The stored value, or none (also when unbound or when the entry cannot be read whole). Inlined
  // into the caller, with the lookup of findAtHome where the types allow it: a lookup of a record
  // in its home costs no call.
  [[gnu::always_inline]] std::optional<V> find(const K& key) const {
    const std::uint32_t h = KeyCodec<K>::hash(key);
    if (const Shelf::Reader* r = reader_) {
      if constexpr (kWordLookup) {
        std::uint8_t k[kKeyMax];
        const std::uint32_t kn = KeyCodec<K>::encode(key, k);
        std::uint64_t keyWord = 0;
        std::memcpy(&keyWord, k, kn);
        Shelf::Reader::ValueWords<kKeyMax, kValueMax> value;
        if (r->findAtHome(keyWord, kn, h, value) && V::wordsDecodable(value.words, value.length)) [[likely]] {
          return std::optional<V>(std::in_place, FromWords{value.words});
        }
      }
      return readerFind(*r, key, h);
    }
    if (!control_) return std::nullopt;
    return writerFind(key, h);
  }

  // Writer only. Stores `value` under `key`; false when the same value was stored already.
  bool set(const K& key, const V& value) {
    Shelf::Writer* w = writerOrDie();
    std::uint8_t k[kKeyMax];
    std::uint32_t kn = KeyCodec<K>::encode(key, k);
    alignas(8) std::uint8_t v[kValueMax] = {};
    std::uint32_t vn = value.serializeLen();
    PICO_ASSERT(vn <= kValueMax);
    value.serialize(v);
    try {
      return w->put(Shelf::Bytes(k, kn), KeyCodec<K>::hash(key), Shelf::Bytes(v, vn));
    } catch (const Shelf::CorruptionException& e) {
      writerMetCorruption(*control_, e);
    }
  }

  // Writer only. Removes `key`; false when it was absent.
  bool del(const K& key) {
    Shelf::Writer* w = writerOrDie();
    std::uint8_t k[kKeyMax];
    try {
      return w->erase(Shelf::Bytes(k, KeyCodec<K>::encode(key, k)), KeyCodec<K>::hash(key));
    } catch (const Shelf::CorruptionException& e) {
      writerMetCorruption(*control_, e);
    }
  }

  // Writer only.
  void delAll() { writerOrDie()->clear(); }

  // Calls fn(value) for every entry. A reader reports a record that is whole but does not decode
  // (bytes no writer of this type would store) through the corruption handler, and goes on with
  // the others.
  template <typename F>
  void forEach(F&& fn) const {
    if (!control_) return;
    auto each = [&](Shelf::Bytes, Shelf::Bytes value) { fn(V::deserialize(value)); };
    if (Shelf::Reader* r = control_->reader()) {
      r->forEach([&](Shelf::Bytes key, Shelf::Bytes value) {
        std::optional<V> decoded;
        try {
          decoded.emplace(Decoded{value});
        } catch (const Kelp::RangeException& e) {
          control_->corruption(undecodable(r->location(), key, e));
          return;
        }
        fn(*decoded);
      });
    } else {
      try {
        control_->writer()->forEach(each);
      } catch (const Shelf::CorruptionException& e) {
        writerMetCorruption(*control_, e);
      }
    }
  }

  std::uint32_t size() const { return control_ ? control_->occupancy() : 0; }

 private:
  // Stands for the value decoded from `bytes`: emplacing it lets the compiler decode straight into
  // the optional that find returns, where emplacing V::deserialize(...) would decode into a
  // temporary and copy that.
  struct Decoded {
    Shelf::Bytes bytes;
    operator V() const { return V::deserialize(bytes); }  // NOLINT: converts on purpose
  };

  // Keys of one word whose values decode from words (V::wordsDecodable and V::fromWords, over the
  // value's bytes as little-endian words, zeros after its length) are looked up inline first: a
  // value wordsDecodable refuses goes the common way, to be decoded or refused by V::deserialize.
  static constexpr bool kWordLookup = kKeyMax <= 8 && requires(const std::uint64_t* w, std::uint32_t n) {
    { V::wordsDecodable(w, n) } -> std::same_as<bool>;
    { V::fromWords(w) } -> std::same_as<V>;
  };
  struct FromWords {
    const std::uint64_t* words;
    operator V() const { return V::fromWords(words); }  // NOLINT: converts on purpose
  };

  // Both return a prvalue on every path, so that the record is decoded straight into the caller's
  // optional: a named optional returned from several places would be built on the stack and copied
  // out, and that copy reads back, in wide loads, what the decoder has just written field by field,
  // which the processor cannot forward from its store queue.
  // Out of line: its copy of a record takes a kilobyte of stack, which the inlined lookup above
  // does without.
  // The key comes by value and is encoded here: the inlined lookup then keeps its bytes in a
  // register, with no store of them to memory that only this call would read.
  [[gnu::noinline]] static std::optional<V> readerFind(const Shelf::Reader& r, K key, std::uint32_t h) {
    std::uint8_t k[kKeyMax];
    const Shelf::Bytes kb(k, KeyCodec<K>::encode(key, k));
    Shelf::Reader::RecordCopy copy;
    std::optional<Shelf::Bytes> value = r.find(kb, h, copy);
    if (!value) return std::nullopt;
    return std::optional<V>(std::in_place, Decoded{*value});
  }
  std::optional<V> writerFind(const K& key, std::uint32_t h) const {
    std::uint8_t k[kKeyMax];
    const Shelf::Bytes kb(k, KeyCodec<K>::encode(key, k));
    alignas(8) std::uint8_t v[kValueMax];
    std::optional<std::uint32_t> n;
    try {
      n = control_->writer()->find(kb, h, v);
    } catch (const Shelf::CorruptionException& e) {
      writerMetCorruption(*control_, e);
    }
    if (!n) return std::nullopt;
    return std::optional<V>(std::in_place, Decoded{Shelf::Bytes(v, *n)});
  }

  static std::string undecodable(const Shelf::Location& where, Shelf::Bytes key, const std::exception& e) {
    std::string hex;
    for (std::uint8_t b : key) hex += fmt::format("{:02x}", b);
    return fmt::format("Shelf {}: the record of key {} does not decode: {}", where.fullPath(), hex, e.what());
  }

  Shelf::Writer* writerOrDie() const {
    PICO_ASSERT(control_ && control_->writer() != nullptr);
    return control_->writer();
  }

  Kelp::Ptr<CollectionControl> control_;
  // control_'s reader, or null (no control, or the writer's): a lookup reaches the table through
  // one pointer fewer, which it waits for before it can even start its read.
  const Shelf::Reader* reader_ = nullptr;
};

}  // namespace KelpShelf

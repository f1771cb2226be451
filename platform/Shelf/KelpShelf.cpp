#include "platform/Shelf/KelpShelf.h"

#include <cstdio>

#include "platform/Pico/Format.h"

namespace KelpShelf {

CollectionControl::CollectionControl(Shelf::Location where, Shelf::Labels labels)
    : where_(std::move(where)), labels_(std::move(labels)) {}

Kelp::Ptr<CollectionControl> CollectionControl::writerFor(const Shelf::Location& where, const Shelf::Labels& labels,
                                                          const Shelf::Geometry& geometry) {
  Kelp::Ptr<CollectionControl> c(new CollectionControl(where, labels));
  c->writer_ = Shelf::Writer::create(where, labels, geometry);
  return c;
}

Kelp::Ptr<CollectionControl> CollectionControl::readerFor(const Shelf::Location& where, const Shelf::Labels& labels,
                                                          std::uint32_t keyMax, std::uint32_t valueMax) {
  Kelp::Ptr<CollectionControl> c(new CollectionControl(where, labels));
  // The reader reports through the control, whose handler may be set later. The control owns the
  // reader, so the reader never outlives it.
  CollectionControl* self = c.get();
  c->reader_ = std::make_unique<Shelf::Reader>(where, labels, keyMax, valueMax,
                                               [self](std::string_view message) { self->corruption(message); });
  return c;
}

std::uint32_t CollectionControl::capacity() const {
  return writer_ ? writer_->capacity() : reader_->capacity();
}

std::uint32_t CollectionControl::occupancy() const {
  return writer_ ? writer_->occupancy() : reader_->occupancy();
}

std::uint64_t CollectionControl::scalar(std::uint32_t index) const {
  return writer_ ? writer_->scalar(index) : reader_->scalar(index);
}

void CollectionControl::scalarIs(std::uint32_t index, std::uint64_t value) {
  PICO_ASSERT(writer_ != nullptr);
  writer_->scalarIs(index, value);
}

void CollectionControl::corruptionHandlerIs(Shelf::CorruptionHandler handler) { handler_ = std::move(handler); }

void CollectionControl::corruption(std::string_view message) const {
  PICO_FMTRACE(Pico::kTraceLevelOperational, " corruption {}", message);
  if (handler_) {
    handler_(message);
  } else {
    std::fprintf(stderr, "%.*s\n", static_cast<int>(message.size()), message.data());
  }
}

std::size_t CollectionControl::poll() {
  PICO_ASSERT(reader_ != nullptr);
  return reader_->poll([this](const Shelf::Change& c) {
    if (listener_ != nullptr) listener_->onChange(c);
  });
}

bool CollectionControl::waitForChanges(double seconds) {
  PICO_ASSERT(reader_ != nullptr);
  return reader_->wait(seconds);
}

void writerMetCorruption(const CollectionControl& control, const Shelf::CorruptionException& e) {
  control.corruption(e.what());
  PICO_ASSERT(0 && "in no man's land");
  __builtin_unreachable();
}

}  // namespace KelpShelf

#include "platform/Brim/DumpContext.h"

namespace Brim {

void DumpContext::printf(const char* format, ...) {
  va_list args;
  va_start(args, format);
  vprintf(format, args);
  va_end(args);
}

void DumpContext::vprintf(const char* format, std::va_list args) {
  if (file_ != nullptr) {
    int n = std::vfprintf(file_, format, args);
    if (n > 0) written_ += static_cast<std::size_t>(n);
    return;
  }
  // Format straight into the string's tail; most report lines fit the first guess.
  std::va_list again;
  va_copy(again, args);
  const std::size_t start = text_->size();
  std::size_t room = 128;
  text_->resize(start + room);
  int n = std::vsnprintf(text_->data() + start, room + 1, format, args);
  if (n >= 0 && static_cast<std::size_t>(n) > room) {
    text_->resize(start + static_cast<std::size_t>(n));
    std::vsnprintf(text_->data() + start, static_cast<std::size_t>(n) + 1, format, again);
  }
  va_end(again);
  text_->resize(start + (n > 0 ? static_cast<std::size_t>(n) : 0));
  if (n > 0) written_ += static_cast<std::size_t>(n);
}

void DumpContext::write(std::string_view text) {
  if (file_ != nullptr) {
    written_ += std::fwrite(text.data(), 1, text.size(), file_);
  } else {
    text_->append(text);
    written_ += text.size();
  }
}

}  // namespace Brim

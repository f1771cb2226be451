#pragma once
// Brim::DumpContext: the printf-style text sink that "show" output is written into.
//
// Report code writes with printf() and never knows where the text goes: into a string (command
// handlers that send the text elsewhere, tests) or straight into a FILE* (the tool, stdout).
//
//   Kelp::String text;
//   Brim::DumpContext ctx(text);
//   ctx.printf("Total paths in BGP RIB changed from %u to %u\n", before, now);
//
//   Brim::DumpContext out(stdout);
//
// A context is used by one thread at a time; the target must outlive it.

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <string>
#include <string_view>

namespace Brim {

class DumpContext {
 public:
  // Appends to `target`.
  explicit DumpContext(std::string& target) : text_(&target) {}
  // Writes to `file` (not closed by the context).
  explicit DumpContext(std::FILE* file) : file_(file) {}
  DumpContext(const DumpContext&) = delete;
  DumpContext& operator=(const DumpContext&) = delete;

  void printf(const char* format, ...) __attribute__((format(printf, 2, 3)));
  void vprintf(const char* format, std::va_list args) __attribute__((format(printf, 2, 0)));
  // Writes `text` unchanged (no format directives are read).
  void write(std::string_view text);

  // Bytes written through this context so far.
  std::size_t bytesWritten() const { return written_; }

 private:
  std::string* text_ = nullptr;
  std::FILE* file_ = nullptr;
  std::size_t written_ = 0;
};

}  // namespace Brim

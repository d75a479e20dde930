// Fuzz target of all readers. The first byte of an input chooses the reader and, by its highest
// bit, the reader's other way; the rest are the files that it finds, up to a file separator each.
#include <cstring>

#include "layout.h"
#include "machine.h"
#include "readers.h"

namespace {

constexpr unsigned char kOption = 0x80;
constexpr char kSeparator = '\x1c';
constexpr std::size_t kPieces = 5;  // the last one may hold separators

const Reader* chosen(unsigned char byte) {
  for (const auto readers : {service_readers(), companion_readers(), lab_readers()}) {
    for (const Reader& reader : readers) {
      if (reader.letter == (byte & ~kOption)) return &reader;
    }
  }
  return nullptr;
}

}  // namespace

// Every allocation is noted with its callers, and freed memory kept: less of both doubles the
// speed. The environment variable ASAN_OPTIONS counts more.
extern "C" const char* __asan_default_options() {
  return "malloc_context_size=1:quarantine_size_mb=4";
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  const Reader* const reader = size == 0 ? nullptr : chosen(data[0]);
  static const bool isLaidOut = (lay_out_machine(), true);
  if (reader == nullptr || !isLaidOut) return 0;
  Input input{.option = (data[0] & kOption) != 0, .pieces = {{}}};
  for (std::size_t i = 1; i < size; ++i) {
    const char byte = static_cast<char>(data[i]);
    if (byte == kSeparator && input.pieces.size() < kPieces) {
      input.pieces.emplace_back();
    } else {
      input.pieces.back() += byte;
    }
  }
  reader->read(input);
  return 0;
}

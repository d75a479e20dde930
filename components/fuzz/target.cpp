// Fuzz target of all readers. The first byte of an input chooses the reader and, by its highest
// bit, the reader's other way; the rest are the files that it finds, up to a file separator each.
#include <string_view>

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

// Every allocation is noted with its callers and filled, and freed memory kept: with less of it
// memory stays in the processor's cache. The environment variable ASAN_OPTIONS counts more.
extern "C" const char* __asan_default_options() {
  return "malloc_context_size=0:max_malloc_fill_size=0:quarantine_size_mb=0:"
         "thread_local_quarantine_size_kb=64";
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  const Reader* const reader = size == 0 ? nullptr : chosen(data[0]);
  static const bool isLaidOut = (lay_out_machine(), true);
  if (reader == nullptr || !isLaidOut) return 0;
  Input input{.option = (data[0] & kOption) != 0, .pieces = {}};
  std::string_view rest(reinterpret_cast<const char*>(data) + 1, size - 1);
  while (input.pieces.size() + 1 < kPieces && rest.find(kSeparator) != std::string_view::npos) {
    input.pieces.emplace_back(rest.substr(0, rest.find(kSeparator)));
    rest.remove_prefix(rest.find(kSeparator) + 1);
  }
  input.pieces.emplace_back(rest);
  reader->read(input);
  return 0;
}

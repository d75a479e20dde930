// What the fuzz target feeds: each reader gets pieces of bytes, puts them where it finds them, and
// aborts when the reader does not keep its promises.
#pragma once

#include <span>
#include <string>
#include <vector>

struct Input {
  bool option = false;
  std::vector<std::string> pieces;
  const std::string& piece(std::size_t number) const {
    static const std::string none;
    return number < pieces.size() ? pieces[number] : none;
  }
};

struct Reader {
  char letter;
  void (*read)(const Input& input);
};

std::span<const Reader> service_readers();
std::span<const Reader> companion_readers();
std::span<const Reader> lab_readers();

// What fanctl link is to do: the chip that is meant, and what its folder will hold.
#pragma once

#include <initializer_list>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>

#include "hwmon.h"
#include "utils.h"

/// Ends the subcommand with a message for the user.
struct Refusal : std::runtime_error {
  using std::runtime_error::runtime_error;
};
[[noreturn]] void refuse(std::initializer_list<TextPiece> pieces);

/// There is no such chip; its driver may still be on its way.
struct NoSuchChip : Refusal {
  using Refusal::Refusal;
};

/// A chip, and the number of one of its PWMs or temperatures.
struct Choice {
  Chip chip;
  int channel = 1;
};

/// Finds what "NAME" or "NAME:NUMBER" means; NAME is a chip's name, its name with its address, or a
/// path. Refuses when there is no such chip, or more than one.
Choice choose(const std::string& wanted);

struct Plan {
  bool closeLoop = false;
  std::map<std::string, std::string> links;  ///< entry to the chip's attribute
  std::map<std::string, std::string> files;  ///< entry to a neutral value
  std::string modePath;                      ///< empty: the chip has no modes
  std::string mode;                          ///< in which it takes commands
  std::string commandPath;
  std::string sensor;  ///< the temperature's attribute; empty when none is wanted
};

/// What the folder of a channel will hold, by paths that lead to this very chip or nowhere. Refuses
/// a channel that does not exist or cannot be controlled.
Plan make_plan(const Choice& choice);

/// The attribute of a temperature. Refuses one that cannot be read.
std::string sensor_path(const Choice& choice);

/// What fan_link.conf asks for.
struct BootLink {
  std::string chip;  ///< as choose() takes it; empty when the file names none
  std::string folder;
  std::string sensor;  ///< empty: none
};

/// Reads the file over what boot holds. False when there is none; refuses one that cannot be read.
bool read_boot_file(const std::string& path, BootLink& boot);

/// Within a folder that fanctl link has made: how the chip was before.
inline constexpr char LINK_RECORD_FOLDER[] = "/.link";
inline constexpr char LINK_RECORD[] = "/.link/record";

/// Whether fanctl link has made the folder.
bool is_linked_folder(const std::string& folder);

/// Whether an entry of such a folder is a plain file, which stands in for what the chip does not
/// have.
bool is_filler(const std::string& folder, std::string_view entry);

inline constexpr char BOOT_FILE[] = "fan_link.conf";

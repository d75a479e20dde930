// The report's files.
#pragma once

#include <map>
#include <string>

#include "figures.h"

// By their names.
using Files = std::map<std::string, std::string>;

// A folder beside the report's, on the same file system, in which everything is made; it is gone
// when the object is.
class Workshop {
 public:
  // Throws LabError when the folder cannot be made, or the report's place is taken by a file.
  explicit Workshop(const std::string& out);
  ~Workshop();
  Workshop(const Workshop&) = delete;
  Workshop& operator=(const Workshop&) = delete;

  const std::string& folder() const { return m_folder; }
  // Writes the files, and puts them into the report's folder when all of them are there. Those of
  // an earlier report go.
  void deliver(const Files& files) const;

 private:
  std::string m_out;
  std::string m_folder;
};

// The tables as comma-separated values, units in their head lines.
Files csv_files(const Report& report);

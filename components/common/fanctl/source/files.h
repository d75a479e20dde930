// Small dealings with files and folders.
#pragma once

#include <sys/stat.h>

#include <string>
#include <vector>

inline constexpr mode_t OTHERS_WRITE = S_IWGRP | S_IWOTH;

/// Whether others than root, and than whoever runs this, can write to a file or folder.
bool others_can_write(const struct stat& status);

/// Whether there is anything of this name; a link counts by itself, wherever it leads.
bool exists(const std::string& path);

/// Whether the file can be opened for reading; a pipe is not waited for. False for an empty path.
bool is_readable(const std::string& path);

/// The path without links; empty when it leads nowhere.
std::string real_path(const std::string& path);

/// The same file by the real path of its folder; empty for an empty path.
std::string in_real_folder(const std::string& path);

/// The folder that a path lies in; "." for a bare name.
std::string parent_of(const std::string& path);

/// The names in a folder but "." and ".."; none when it cannot be read.
std::vector<std::string> names_in(const std::string& folder);

/// Writes text to a file in one go, as an attribute wants it; a new file (O_CREAT) is on the disk
/// afterwards. flags: of open(), beside O_WRONLY. The error number, 0 for success.
int write_text(const std::string& path, const std::string& text, int flags);

/// Whether there is something of this name that is no plain file, such as a device or a link. It
/// would be replaced, not written to.
bool is_special(const std::string& path);

/// Writes text beside the file and puts it in its place, so that it is never half there. False,
/// with errno, when it cannot be written; the file is then as it was.
bool replace_file(const std::string& path, const std::string& text);

/// Makes a folder in which only root can write; one that is there has to be such a folder. The
/// error number, EPERM for a folder of somebody else's; 0 for success.
int make_own_folder(const std::string& folder);

// File helpers built on the platform: what the system would otherwise do with small
// shell pipelines (cat, echo >, mkdir -p, rm, ls), done in-process.
#pragma once

#include <string>
#include <vector>

#include "api/Export.h"

namespace quarn {

// Whole file into *text ("cat"). 0, or -1 with errno.
QUARN_EXPORT int readTextFile(const std::string& path, std::string* text,
                              size_t limit = 16u << 20);
// Replaces the file's contents ("echo TEXT > path"): opened for writing without
// creating, as the shell does for sysfs attributes. 0, or -1 with errno.
QUARN_EXPORT int writeTextFile(const std::string& path, const std::string& text);
// Creates every missing directory of path ("mkdir -p"). Refuses (ELOOP) to pass
// through a symbolic link, so nothing planted under /tmp can redirect the tree.
QUARN_EXPORT int makeDirectories(const std::string& path, unsigned int mode = 0755);
// Writes a scratch file so that a link planted at path is replaced, never followed,
// and readers see the old or the new contents, never a half-written file.
QUARN_EXPORT int writeScratchFile(const std::string& path, const std::string& text,
                                  unsigned int mode = 0644);
// Names in a directory ("ls"), sorted.
QUARN_EXPORT int listNames(const std::string& path, std::vector<std::string>* names);
// Removes a file or an empty directory ("rm"); a missing path is not an error.
QUARN_EXPORT int removePath(const std::string& path);

}  // namespace quarn

// The manual page quarn(1) in troff, from the command table.
#pragma once

#include <string>

namespace quarn::cli {

std::string manPage(const std::string& version);

}  // namespace quarn::cli

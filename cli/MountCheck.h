// Guarding destructive commands: a disk that holds a mounted file system is only
// written with --force.
#pragma once

#include <string>
#include <vector>

#include "cli/Cli.h"

namespace quarn::cli {

// The "SOURCE on TARGET" text of the first mount whose source is node or one of its
// partitions (sdd1, nvme0n1p2); empty when none is mounted.
std::string findMount(const std::string& node);
// Removes flag from args; true when it was there.
bool takeFlag(std::vector<std::string>& args, const std::string& flag);
// 0 when node may be written (nothing mounted, or force); otherwise sets ctx.error and
// returns 1.
int refuseMounted(Context& ctx, const std::string& node, bool force, const std::string& what);

}  // namespace quarn::cli

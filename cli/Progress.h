// A progress bar for long tests: a second thread polls the diagnostic object's
// getProgress() and draws on the terminal's standard error.
#pragma once

#include <functional>

#include "api/BaseClass.h"
#include "cli/Cli.h"

namespace quarn::cli {

// Whether a bar is drawn for ctx (text mode, standard error a terminal), and one frame of it.
bool progressShown(const Context& ctx);
void drawProgress(unsigned long long percent, bool last);

// Runs test on this thread while the bar is drawn (text mode on a terminal only).
ErrorMsg* runWithProgress(Context& ctx, BaseClassDAPI& object, const std::function<ErrorMsg*()>& test);

}  // namespace quarn::cli

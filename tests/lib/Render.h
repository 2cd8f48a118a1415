// Helpers shared by the test files: a chain as the front end shows it, text as lines.
#pragma once

#include <sstream>
#include <string>
#include <vector>

#include "api/ErrorText.h"

namespace quarn::test {

// Renders the chain and frees it; an empty text means success.
inline std::string render(ErrorMsg* chain) {
    std::string text;
    getErrorMessage(chain, &text);
    return text;
}

inline std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

}  // namespace quarn::test

// The tool's command table, the context commands run in, and the capture of what a
// library call prints.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "api/ErrorText.h"
#include "cli/Cli.h"

namespace quarn::cli {

int Context::fail(ErrorMsg* chain) {
    std::string text;
    getErrorMessage(chain, &text);
    error = text.empty() ? "unknown failure" : text;
    return 1;
}

int Context::usage(const std::string& message) {
    error = message;
    usageError = true;
    return 2;
}

std::vector<Command>& commands() {
    static std::vector<Command> list;
    return list;
}

Register::Register(std::initializer_list<Command> list) {
    for (const Command& c : list) commands().push_back(c);
}

StdoutCapture::StdoutCapture() : m_saved(stdout) {
    fflush(stdout);
    m_stream = open_memstream(&m_buffer, &m_size);
    if (m_stream) stdout = m_stream;
}

StdoutCapture::~StdoutCapture() { finish(); }

std::string StdoutCapture::finish() {
    if (!m_stream) return std::string();
    fflush(m_stream);
    stdout = m_saved;
    fclose(m_stream);
    m_stream = nullptr;
    std::string text(m_buffer ? m_buffer : "", m_size);
    free(m_buffer);
    m_buffer = nullptr;
    return text;
}

}  // namespace quarn::cli

#include "Progress.h"

#include <unistd.h>

#include <iomanip>
#include <iostream>
#include <sstream>
#include <utility>

#include "i18n.h"
#include "terminal_text.h"

namespace tool {
namespace {

constexpr std::chrono::seconds FIRST_SHOWN{3};
constexpr char ERASE_LINE[] = "\r\033[K";  // ECMA-48, erase in line

std::string minutes(std::chrono::seconds time) {
    std::ostringstream text;
    text << time.count() / 60 << ':' << std::setw(2) << std::setfill('0') << time.count() % 60;
    return text.str();
}

/// As much of `text` as one line of the terminal takes.
std::string fitted(const std::string& text) { return cut(text, terminalColumns(STDERR_FILENO) - 1); }

}  // namespace

Progress::Progress(std::string name, std::chrono::milliseconds limit)
    : m_name(std::move(name)), m_limit(limit) {
    if (isatty(STDOUT_FILENO) != 0 && isatty(STDERR_FILENO) != 0) m_thread = std::thread([this] { show(); });
}

Progress::~Progress() {
    if (!m_thread.joinable()) return;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_ended = true;
    }
    m_ending.notify_one();
    m_thread.join();
    std::cerr << ERASE_LINE << std::flush;
}

void Progress::show() {
    const auto start = std::chrono::steady_clock::now();
    const std::string limit = minutes(std::chrono::duration_cast<std::chrono::seconds>(m_limit));
    std::unique_lock<std::mutex> lock(m_mutex);
    for (auto run = FIRST_SHOWN; !m_ending.wait_until(lock, start + run, [this] { return m_ended; }); ++run)
        std::cerr << ERASE_LINE
                  << fitted(filled(tr("%s: waiting for %s of at most %s"), m_name.c_str(),
                                   minutes(run).c_str(), limit.c_str()))
                  << std::flush;
}

}  // namespace tool

#include "Interruption.h"

#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstring>
#include <utility>

namespace tool {
namespace {

constexpr int SIGNALS[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

// For the handler: ready-made, since it can do little more than write.
std::atomic<const char*> lastWords{nullptr};
std::atomic<const char*> leftover{nullptr};

void end(int signal) {
    if (const char* const path = leftover) unlink(path);
    if (const char* const text = lastWords) {
        const ssize_t ignored = write(STDERR_FILENO, text, std::strlen(text));
        static_cast<void>(ignored);
    }
    raise(signal);  // SA_RESETHAND: it ends the program now
}

}  // namespace

Interruption::Interruption() {
    struct sigaction action {};
    action.sa_handler = end;
    action.sa_flags = static_cast<int>(SA_RESETHAND | SA_NODEFER);
    for (const int signal : SIGNALS) {
        struct sigaction before {};
        sigaction(signal, &action, &before);
        if (before.sa_handler == SIG_IGN) std::signal(signal, SIG_IGN);
    }
}

Interruption::~Interruption() {
    for (const int signal : SIGNALS) {
        struct sigaction now {};
        sigaction(signal, nullptr, &now);
        if (now.sa_handler == end) std::signal(signal, SIG_DFL);
    }
    lastWords = nullptr;
    leftover = nullptr;
}

void Interruption::say(std::string text) {
    lastWords = nullptr;  // a signal may come now
    m_text = std::move(text);
    lastWords = m_text.c_str();
}

void Interruption::remove(std::string path) {
    leftover = nullptr;
    m_path = std::move(path);
    leftover = m_path.c_str();
}

}  // namespace tool

#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "Service.h"

namespace fiscorad {

/// The metrics for Prometheus. They contain no activation code, document or key. Safe for threads.
class Metrics {
  public:
    Metrics();
    ~Metrics();
    Metrics(const Metrics&) = delete;
    Metrics& operator=(const Metrics&) = delete;

    void called(const LastCall& call);
    void committed(std::chrono::nanoseconds duration);

    /// All of them in Prometheus' text format. Reads the journal, which is at `journal`.
    std::string text(Service& service, const std::string& journal);

  private:
    struct Families;
    std::unique_ptr<Families> m_families;
};

}  // namespace fiscorad

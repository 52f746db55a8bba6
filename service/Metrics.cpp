#include "Metrics.h"

#include <prometheus/gauge.h>
#include <prometheus/histogram.h>
#include <prometheus/registry.h>
#include <prometheus/text_serializer.h>
#include <sys/statvfs.h>

#include <array>
#include <filesystem>
#include <mutex>

#include "dispatcher/device_state.h"
#include "rules/document.h"

namespace fiscorad {
namespace {

using prometheus::BuildGauge;
using prometheus::BuildHistogram;
using prometheus::Family;
using prometheus::Gauge;
using prometheus::Histogram;
using Seconds = std::chrono::duration<double>;

const Histogram::BucketBoundaries CALL_SECONDS{0.5, 1, 1.25, 1.5, 2, 3, 5, 10, 20, 45};
const Histogram::BucketBoundaries COMMIT_SECONDS{0.0005, 0.001, 0.002, 0.005, 0.01,
                                                 0.025,  0.05,  0.1,   0.25,  1};

constexpr std::array STATES{State::Queued,  State::Sent,      State::Uncertain, State::Booked,
                            State::Refused, State::Withdrawn, State::Undecided, State::Abandoned};

}  // namespace

struct Metrics::Families {
    prometheus::Registry registry;
    Family<Histogram>& calls =
        BuildHistogram()
            .Name("fiscorad_call_duration_seconds")
            .Help("Duration of the device's calls by operation and status of the library")
            .Register(registry);
    Histogram& commits = BuildHistogram()
                             .Name("fiscorad_journal_commit_duration_seconds")
                             .Help("Duration of the journal's commits")
                             .Register(registry)
                             .Add({}, COMMIT_SECONDS);
    Family<Gauge>& documents =
        BuildGauge().Name("fiscorad_documents").Help("Documents in the journal by state").Register(registry);
    Family<Gauge>& device = BuildGauge()
                                .Name("fiscorad_device_state")
                                .Help("1 for the state that the device is in, 0 for the others")
                                .Register(registry);
    Gauge& queue = gauge("fiscorad_queue_length", "Documents that wait to be sent");
    Gauge& oldest = gauge("fiscorad_oldest_undecided_seconds",
                          "Age of the oldest document without an outcome, 0 if there is none");
    Gauge& alarms =
        gauge("fiscorad_alarms", "Devices that show a document which the journal does not explain");
    Gauge& journalBytes = gauge("fiscorad_journal_bytes", "Size of the journal's file");
    Gauge& diskBytes = gauge("fiscorad_disk_bytes", "Size of the file system with the journal");
    Gauge& freeBytes = gauge("fiscorad_disk_free_bytes", "What is free there for the service's user");

    Gauge& gauge(const char* name, const char* help) {
        return BuildGauge().Name(name).Help(help).Register(registry).Add({});
    }
};

Metrics::Metrics() : m_families(std::make_unique<Families>()) {
    BuildGauge()
        .Name("fiscorad_build_info")
        .Help("1, with the version as a label")
        .Register(m_families->registry)
        .Add({{"version", FISCORA_VERSION}})
        .Set(1);
}

Metrics::~Metrics() = default;

void Metrics::called(const LastCall& call) {
    m_families->calls
        .Add({{"operation", call.operation}, {"status", std::to_string(call.status)}}, CALL_SECONDS)
        .Observe(Seconds(call.duration).count());
}

void Metrics::committed(std::chrono::nanoseconds duration) {
    m_families->commits.Observe(Seconds(duration).count());
}

std::string Metrics::text(Service& service, const std::string& journal) {
    Families& families = *m_families;
    const Tally tally = service.tally();
    for (const State state : STATES) {
        const auto count = tally.documents.find(state);
        families.documents.Add({{"state", std::string(nameOf(state))}})
            .Set(count == tally.documents.end() ? 0 : static_cast<double>(count->second));
    }
    const DeviceState device = service.device();
    for (std::size_t i = 0; i < CONDITION_NAMES.size(); ++i)
        families.device.Add({{"state", CONDITION_NAMES.at(i)}})
            .Set(static_cast<std::size_t>(device.condition) == i ? 1 : 0);
    families.queue.Set(static_cast<double>(service.queueLength()));
    families.oldest.Set(
        tally.oldestOpen ? Seconds(std::chrono::system_clock::now() - *tally.oldestOpen).count() : 0);
    families.alarms.Set(static_cast<double>(service.alarms().size()));

    std::error_code error;
    if (const auto size = std::filesystem::file_size(journal, error); !error)
        families.journalBytes.Set(static_cast<double>(size));
    struct statvfs disk {};
    if (statvfs(journal.c_str(), &disk) == 0) {
        families.diskBytes.Set(static_cast<double>(disk.f_blocks) * static_cast<double>(disk.f_frsize));
        families.freeBytes.Set(static_cast<double>(disk.f_bavail) * static_cast<double>(disk.f_frsize));
    }
    return prometheus::TextSerializer().Serialize(families.registry.Collect());
}

}  // namespace fiscorad

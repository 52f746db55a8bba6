#include "sim/Fault.h"

#include <algorithm>

namespace sim {

const std::vector<Fault>& faults() {
    static const std::vector<Fault> table{
        {"silence", 32768,
         "no answer: the call waits its whole time (2 after 50 s, where its time is longer)",
         [](Transmission& line) { line.bytes.clear(); }},
        {"hang-up", 2, "the line hangs up in place of the answer; the next call finds the device again",
         [](Transmission& line) {
             line = {{}, true};
         }},
        {"hang-up-in-answer", 2,
         "the line hangs up after half of the answer; the next call finds the device again",
         [](Transmission& line) {
             line.bytes.resize(line.bytes.size() / 2);
             line.hangUp = true;
         }},
    };
    return table;
}

const Fault* findFault(std::string_view name) {
    const auto found = std::find_if(faults().begin(), faults().end(),
                                    [&](const Fault& fault) { return fault.name == name; });
    return found == faults().end() ? nullptr : &*found;
}

}  // namespace sim

#include "Metrics.h"

namespace tarsel::daemon {

char const* writeOutcomeName(WriteOutcome outcome) {
    switch (outcome) {
        case WriteOutcome::Written:
            return "written";
        case WriteOutcome::Refused:
            return "refused";
        case WriteOutcome::Failed:
            return "failed";
        case WriteOutcome::Rejected:
            return "rejected";
    }
    return "?";
}

char const* reloadOutcomeName(ReloadOutcome outcome) {
    return outcome == ReloadOutcome::Applied ? "applied" : "refused";
}

bool isWriteFunction(std::uint8_t function) {
    return function == 5 || function == 6 || function == 15 || function == 16;
}

}  // namespace tarsel::daemon

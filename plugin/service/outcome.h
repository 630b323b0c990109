// What an operation answers: done, or refused with one sentence that names
// the argument and the rule. The refusal is traced once, where it is made.
#pragma once

#include <string>
#include <utility>

#include "orv/trace.h"

class outcome_t {
  public:
    static outcome_t done() { return outcome_t(); }
    // Traces the refusal at the default level, attributed to the operation.
    static outcome_t refused(const char* operation, std::string reason) {
        tolvTrace_message(TRACE_LEVEL_WARNING, TOLV_TRACE_MODULE, operation, __FILE__, __LINE__,
                          "%s refused: %s", operation, reason.c_str());
        outcome_t outcome;
        outcome.reason_ = std::move(reason);
        return outcome;
    }

    bool ok() const { return reason_.empty(); }
    const std::string& reason() const { return reason_; }

  private:
    outcome_t() = default;
    std::string reason_;
};

// The sentence for an argument the call did not carry.
inline std::string outcome_missing(const char* argument) {
    return std::string("'") + argument + "' is missing";
}

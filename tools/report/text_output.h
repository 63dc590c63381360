// The reports of each input written again as plain text, every frame
// symbolised, followed by what they add up to: the live memory of each call
// site across the top reports, the leak suspects, and per trace dump what
// the traced window allocated and did not release.
#pragma once

#include <ostream>
#include <vector>

#include "report_model.h"
#include "symboliser.h"

namespace tarvex::report {

void write_text(std::ostream& out, const std::vector<parsed_log>& logs, symboliser& symbols);

}  // namespace tarvex::report

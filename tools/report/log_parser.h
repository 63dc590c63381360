// Finds tarvex's reports in a log file or in a program's captured output:
// trace dumps, top reports and fault reports, several in one input, with
// unrelated lines between them and possibly cut off at the end.
#pragma once

#include <istream>
#include <string>

#include "report_model.h"

namespace tarvex::report {

parsed_log parse_log(std::istream& in, const std::string& input_name);

}  // namespace tarvex::report

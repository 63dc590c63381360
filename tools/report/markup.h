// Escaping for text placed into an HTML page and into JSON inside it.
#pragma once

#include <string>

namespace tarvex::report {

// Text safe between tags and inside double-quoted attribute values.
std::string html_escape(const std::string& text);

// A JSON string literal, quotes included, that is also safe inside a
// <script> element: '<', '>' and '&' are written as \u escapes.
std::string json_string(const std::string& text);

}  // namespace tarvex::report

// Small helpers of the report tool that only the HTML page shows: escaping
// and byte counts.
#include <gtest/gtest.h>

#include "markup.h"
#include "presentation.h"

namespace tarvex::report {
namespace {

TEST(Markup, HtmlAndJsonEscapes) {
    EXPECT_EQ(html_escape("a<b>&\"c'"), "a&lt;b&gt;&amp;&quot;c&#39;");
    // A string in the page's script can never close the script element.
    EXPECT_EQ(json_string("</script>"), "\"\\u003c/script\\u003e\"");
    EXPECT_EQ(json_string("a\"b\\c\n\x01"), "\"a\\\"b\\\\c\\u000a\\u0001\"");
    EXPECT_EQ(json_string("operator<<(std::ostream&)"), "\"operator\\u003c\\u003c(std::ostream\\u0026)\"");
}

TEST(Presentation, Bytes) {
    const std::pair<unsigned long long, const char*> rows[] = {
        {0, "0 B"}, {1023, "1023 B"}, {1024, "1.0 KiB"}, {1536, "1.5 KiB"}, {5ull << 30, "5.0 GiB"},
        {~0ull, "16777216.0 TiB"}};
    for (const auto& r : rows) EXPECT_EQ(human_bytes(r.first), r.second) << r.first;
}

}  // namespace
}  // namespace tarvex::report

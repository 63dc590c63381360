// Small helpers of the report tool: escaping, byte counts and the command
// line's mistakes.
#include <gtest/gtest.h>

#include "cli_options.h"
#include "markup.h"
#include "presentation.h"

namespace tarvex::report {
namespace {

TEST(Markup, HtmlEscape) {
    EXPECT_EQ(html_escape("a<b>&\"c'"), "a&lt;b&gt;&amp;&quot;c&#39;");
    EXPECT_EQ(html_escape(""), "");
}

TEST(Markup, JsonStringsCannotCloseTheScript) {
    EXPECT_EQ(json_string("</script>"), "\"\\u003c/script\\u003e\"");
    EXPECT_EQ(json_string("a\"b\\c\n\x01"), "\"a\\\"b\\\\c\\u000a\\u0001\"");
    EXPECT_EQ(json_string("operator<<(std::ostream&)"),
              "\"operator\\u003c\\u003c(std::ostream\\u0026)\"");
}

TEST(Presentation, Bytes) {
    EXPECT_EQ(human_bytes(0), "0 B");
    EXPECT_EQ(human_bytes(1023), "1023 B");
    EXPECT_EQ(human_bytes(1024), "1.0 KiB");
    EXPECT_EQ(human_bytes(1536), "1.5 KiB");
    EXPECT_EQ(human_bytes(5ull << 30), "5.0 GiB");
    EXPECT_EQ(human_bytes(~0ull), "16777216.0 TiB");
    EXPECT_EQ(blocks_text(1), "1 block");
    EXPECT_EQ(blocks_text(0), "0 blocks");
    EXPECT_EQ(uid_hex(0xab), "000000ab");
    EXPECT_EQ(signed_blocks(11, 1), "+10 blocks");
    EXPECT_EQ(signed_blocks(1, 2), "-1 block");
    EXPECT_EQ(signed_blocks(3, 3), "+0 blocks");
}

TEST(Presentation, SiteLabelSkipsAllocatorFrames) {
    symboliser symbols;
    call_stack stack = {parse_frame_line("/no/lib(+0x1) [0x1]")};
    EXPECT_EQ(site_label(stack, symbols), "/no/lib(+0x1) [0x1]");
    EXPECT_EQ(site_label({}, symbols), "(no call stack)");
}

bool parses(std::initializer_list<const char*> args, cli_options& options, std::string& error) {
    options = cli_options{};
    return parse_cli(std::vector<std::string>(args.begin(), args.end()), options, error);
}

TEST(CommandLine, Mistakes) {
    cli_options o;
    std::string error;
    EXPECT_FALSE(parses({}, o, error));
    EXPECT_EQ(error, "no input file given");
    EXPECT_FALSE(parses({"--html"}, o, error));
    EXPECT_EQ(error, "option --html needs a value");
    EXPECT_FALSE(parses({"--html=", "x"}, o, error));
    EXPECT_FALSE(parses({"--frobnicate", "x"}, o, error));
    EXPECT_EQ(error, "unknown option '--frobnicate'");
}

}  // namespace
}  // namespace tarvex::report

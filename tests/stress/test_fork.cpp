// fork, vfork, posix_spawn, system() and exec from a tracked process.
#include <gtest/gtest.h>

#include "runner.h"

using namespace stress;

namespace {

env_map tracked_env(const std::string& target, const temp_dir& dir) {
    return {{"TARVEX_TARGET_PROC_NAME", target}, {"TARVEX_TOP", "1"}, {"TARVEX_LOG_FILE_NAME", dir.file("log")}};
}

// The probe that the fork scenario relies on tells both states apart.
TEST(Fork, ProbeTellsTrackedFromUntracked) {
    temp_dir dir;
    struct {
        const char* target;
        const char* want;
    } cases[] = {{"stress_probe", "tracked"}, {"stress_fork", "untracked"}, {"", "untracked"}};
    for (const auto& c : cases) {
        run_options o;
        o.env = tracked_env(c.target, dir);
        result r = run({built("stress_probe"), c.want}, o);
        EXPECT_TRUE(r.exited_ok()) << "target '" << c.target << "': " << r.describe();
        r = run({built("stress_probe"), std::string(c.want) == "tracked" ? "untracked" : "tracked"}, o);
        EXPECT_FALSE(r.exited_ok()) << "target '" << c.target << "': the probe does not tell the states apart";
    }
}

// 100 forks while four threads allocate and two write reports and trace
// dumps; every child works at once and exits 0, and the spawn family (vfork
// + exec, posix_spawn, system, fork + exec) runs every 25 forks.
TEST(Fork, BusyMultithreadedTargetForksRepeatedly) {
    temp_dir dir;
    run_options o;
    o.env = tracked_env("stress_fork", dir);
    result r = run({built("stress_fork"), "fork", "100"}, o);
    ASSERT_TRUE(r.exited_ok()) << r.describe();
    EXPECT_EQ(r.out, "fork: ok\n");
    EXPECT_EQ(r.err, "");
    // The reports of parent and children reached the log.
    std::string log = read_file(dir.file("log"));
    EXPECT_GE(count(log, "----------top by size----------\n"), 100u);
    EXPECT_GE(count(log, "\n----------trace----------\n"), 100u);
}

}  // namespace

// Signals, the end of the process and libraries loaded at run time.
#include <gtest/gtest.h>

#include "runner.h"

using namespace stress;

namespace {

const std::string k_prog = "stress_lifecycle";

run_options target_options(const temp_dir& dir) {
    run_options o;
    o.env = {{"TARVEX_TARGET_PROC_NAME", k_prog}, {"TARVEX_TOP", "1"}, {"TARVEX_LOG_FILE_NAME", dir.file("log")}};
    o.timeout_s = 120;
    return o;
}

// Control functions from signal handlers that interrupt threads inside the
// library (in tracked work, in a trace dump, in a top report): no deadlock,
// and the guard is intact afterwards.
TEST(Lifecycle, ControlFunctionsFromSignalHandlers) {
    temp_dir dir;
    result r = run({built(k_prog), "signal"}, target_options(dir));
    ASSERT_TRUE(r.exited_ok()) << r.describe();
    EXPECT_EQ(r.out, "signal: ok\n");
    EXPECT_EQ(r.err, "");
}

TEST(Lifecycle, MallocUsableSizeFromSignalHandlers) {
    temp_dir dir;
    result r = run({built(k_prog), "usable"}, target_options(dir));
    ASSERT_TRUE(r.exited_ok()) << r.describe();
    EXPECT_EQ(r.out, "usable: ok\n");
    EXPECT_EQ(r.err, "");
}

// Blocks released by atexit handlers, static and thread-local destructors
// and destructor functions are released like any other; a report from an
// atexit handler is written.
TEST(Lifecycle, ReleasesAfterMainReturns) {
    temp_dir dir;
    result r = run({built(k_prog), "exit"}, target_options(dir));
    ASSERT_TRUE(r.exited_ok()) << r.describe();
    EXPECT_EQ(r.out, "exit: main returns\n");
    EXPECT_EQ(r.err, "");
    std::string log = read_file(dir.file("log"));
    EXPECT_EQ(count(log, "\n----------trace----------\n"), 1u) << log;
    EXPECT_NE(log.find("\n----------trace----------\nalloc_uid: "), std::string::npos) << log;
    EXPECT_NE(log.find(", size: 60\n"), std::string::npos) << log;  // the atexit handler's release
    EXPECT_EQ(count(log, "-------------------------------\n"), 1u) << log;
}

// A double free in an atexit handler stops the process like one in main.
TEST(Lifecycle, DoubleFreeAfterMainReturnsIsReported) {
    temp_dir dir;
    result r = run({built(k_prog), "exit-double-free"}, target_options(dir));
    ASSERT_TRUE(r.killed_by(SIGABRT)) << r.describe();
    std::vector<std::string> l = lines(r.out);
    ASSERT_GE(l.size(), 5u) << r.out;
    EXPECT_EQ(l[0], "exit: main returns");
    EXPECT_EQ(l[1].rfind("Failed to find block info for 0x0x", 0), 0u) << r.out;
    EXPECT_EQ(l[2], "*** Double free ***");
    EXPECT_NE(l[3].find(", len: 60"), std::string::npos) << r.out;
    EXPECT_EQ(r.err, assertion(k_prog, 113, "void free(void*)"));
}

// The plugin loaded and closed 50 times, with RTLD_NOW, RTLD_LAZY and
// RTLD_DEEPBIND; blocks cross between program and plugin and outlive it. No
// fault, and reports symbolise stacks into the unloaded plugin.
TEST(Lifecycle, LibrariesLoadedAndClosedAtRunTime) {
    for (const char* flags : {"now", "lazy", "deepbind"}) {
        SCOPED_TRACE(flags);
        temp_dir dir;
        result r = run({built(k_prog), "dlopen", flags}, target_options(dir));
        ASSERT_TRUE(r.exited_ok()) << r.describe();
        EXPECT_EQ(r.out, "dlopen: ok\n");
        EXPECT_EQ(r.err, "");
        std::string log = read_file(dir.file("log"));
        EXPECT_EQ(count(log, "\n----------trace----------\n"), 51u);
        EXPECT_EQ(count(log, "-------------------------------\n"), 6u);
    }
}

// A failed dlsym, then a second dlsym before the process's first free: glibc
// frees the first message inside the second call, and that free must not
// resolve itself with dlsym there. Every process, target or not.
TEST(Lifecycle, FailedDlsymBeforeTheFirstFree) {
    for (const char* target : {"stress_dlsym", "other", ""}) {
        SCOPED_TRACE(target);
        run_options o;
        if (*target) o.env["TARVEX_TARGET_PROC_NAME"] = target;
        result r = run({built("stress_dlsym")}, o);
        ASSERT_TRUE(r.exited_ok()) << r.describe();
        EXPECT_EQ(r.out, "ok\n");
        EXPECT_EQ(r.err, "");
    }
}

}  // namespace

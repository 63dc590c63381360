// Call stacks and their uids, and the caches from uid to return addresses
// and to symbol lines.
#include <dlfcn.h>
#include <execinfo.h>

#include "unit_support.h"

// Captures a stack here, so that frame 1 must lie in this function. Exported
// (see ENABLE_EXPORTS) so that dladdr can name it.
extern "C" __attribute__((noinline)) tarvex::backtrace unit_capture_stack() {
    return tarvex::backtrace();
}

namespace {

using tarvex::backtrace;

// Index of the frame that lies in the backtrace constructor: 0, except in
// sanitizer builds, where the sanitizer's interceptor of the C library's
// backtrace() adds a frame of its own in front.
int constructor_frame(backtrace& bt) {
    int first = 0;
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    Dl_info self, info;
    dladdr(reinterpret_cast<void*>(&unit_capture_stack), &self);
    while (first < bt.get_bt_len() && dladdr(bt.get_bt()[first], &info) != 0 && info.dli_fbase != self.dli_fbase)
        ++first;
#else
    (void)bt;
#endif
    return first;
}

std::vector<void*> frames_of(std::initializer_list<uint64_t> addrs) {
    std::vector<void*> v;
    for (uint64_t a : addrs) v.push_back(reinterpret_cast<void*>(a));
    return v;
}

TEST(Backtrace, UidOfTheWorkedExamples) {
    struct row {
        std::vector<void*> frames;
        uint32_t uid;
    };
    const row rows[] = {
        {frames_of({0x00007F3A12345678, 0x00007F3A1234ABCD, 0x0000000000401A2B}), 0xE2A311ED},
        {frames_of({0x00007F3A12345678, 0x00007F3A1234ABCD}), 0xDCD132DE},
        {frames_of({0x0000000000401A2B}), 0x571D6BA5},
        {frames_of({0x00007F3A12345678}), 0x9D993148},
        {{}, 0},
    };
    for (const row& r : rows) {
        backtrace bt(r.frames);
        EXPECT_EQ(bt.get_bt_len(), int(r.frames.size()));
        EXPECT_EQ(bt.get_cookie(), r.uid) << std::hex << r.uid;
        EXPECT_EQ(bt.compute_cookie(), r.uid);
    }
}

TEST(Backtrace, ListLongerThanTheCapacityKeepsItsFirst64) {
    std::vector<void*> frames = unit::fake_frames(70, 1);
    backtrace bt(frames);
    ASSERT_EQ(bt.get_bt_len(), 64);
    EXPECT_EQ(bt.get_bt()[63], frames[63]);
    frames.resize(64);
    EXPECT_EQ(bt.get_cookie(), backtrace(frames).get_cookie());
}

TEST(Backtrace, CaptureStartsInTheConstructorAndItsCaller) {
    backtrace bt = unit_capture_stack();
    int first = constructor_frame(bt);
    ASSERT_GE(bt.get_bt_len(), first + 3);
    Dl_info info0, info1;
    ASSERT_NE(dladdr(bt.get_bt()[first], &info0), 0);
    ASSERT_NE(dladdr(bt.get_bt()[first + 1], &info1), 0);
    ASSERT_NE(info0.dli_sname, nullptr);
    ASSERT_NE(info1.dli_sname, nullptr);
    EXPECT_EQ(std::string(info0.dli_sname).rfind("_ZN6tarvex9backtraceC", 0), 0u) << info0.dli_sname;
    EXPECT_STREQ(info1.dli_sname, "unit_capture_stack");

    std::vector<void*> list(bt.get_bt(), bt.get_bt() + bt.get_bt_len());
    EXPECT_EQ(backtrace(list).get_cookie(), bt.get_cookie());
    EXPECT_EQ(bt.compute_cookie(), bt.get_cookie());
}

// ---------------------------------------------------------------- caches

// The table behind the stack cache, through several doublings: uid 0 (a
// real uid of a non-empty stack, though rare), uids that share their low
// bits, and lengths 1 to 64 all come back exactly; the first stack of a uid
// stays.
TEST(StackTable, KeepsEveryFirstStackAcrossGrowth) {
    tarvex::stack_table table;
    std::vector<uint32_t> uids;
    for (uint32_t i = 0; i < 3000; ++i) uids.push_back(i % 2 ? i << 20 : i * 2654435761u);
    for (size_t i = 0; i < uids.size(); ++i) {
        std::vector<void*> frames = unit::fake_frames(int(i % 64) + 1, int(i));
        table.insert(uids[i], frames.data(), uint32_t(frames.size()));
        std::vector<void*> other = unit::fake_frames(2, int(i) + 7);
        table.insert(uids[i], other.data(), 2);
    }
    EXPECT_EQ(table.size(), uids.size());
    for (size_t i = 0; i < uids.size(); ++i) {
        const tarvex::stack_table::frames* f = table.find(uids[i]);
        ASSERT_NE(f, nullptr) << i;
        EXPECT_EQ(std::vector<void*>(f->addrs(), f->addrs() + f->len), unit::fake_frames(int(i % 64) + 1, int(i)));
    }
    EXPECT_EQ(table.find(12345), nullptr);
    table.clear();
    EXPECT_EQ(table.find(uids[0]), nullptr);
}

class SymbolCache : public unit::seams {
protected:
    tarvex::backtrace_symbols_cache cache;
    const std::vector<std::string> untouched = {"keep", "me"};
};

// The first stack of a uid stands for it (two stacks that differ only in
// the upper half of a later address share a uid); an empty stack is never
// recorded. Lines are made once, by the updating lookup only, and replace
// what the vector held.
TEST_F(SymbolCache, KeepsTheFirstStackOfAUidAndItsLinesOnce) {
    backtrace empty(std::vector<void*>{});
    cache.update_bt_cache(empty);
    std::vector<void*> first = unit::fake_frames(3, 7), second = first;
    second[2] = reinterpret_cast<void*>(reinterpret_cast<uintptr_t>(second[2]) ^ (uintptr_t(1) << 40));
    backtrace a(first), b(second);
    ASSERT_EQ(a.get_cookie(), b.get_cookie());
    cache.update_bt_cache(a);
    cache.update_bt_cache(b);
    cache.update_bt_cache(a);
    EXPECT_EQ(cache.bt_cache_size(), 1u);

    std::vector<std::string> out = untouched;
    EXPECT_FALSE(cache.find_and_update_bt_sym(out, 0));
    EXPECT_FALSE(cache.find_bt_sym(out, a.get_cookie()));
    EXPECT_EQ(out, untouched);
    EXPECT_EQ(unit::g_symbolizer_calls, 0);
    const std::vector<std::string> lines = {"L0", "L1", "L2"};
    out = {"old", "old", "old", "old", "old"};
    ASSERT_TRUE(cache.find_and_update_bt_sym(out, a.get_cookie()));
    EXPECT_EQ(out, lines);
    EXPECT_EQ(unit::last_symbolized(), first);
    out = untouched;
    ASSERT_TRUE(cache.find_bt_sym(out, a.get_cookie()));
    EXPECT_EQ(out, lines);
    ASSERT_TRUE(cache.find_and_update_bt_sym(out, a.get_cookie()));
    EXPECT_EQ(unit::g_symbolizer_calls, 1);

    backtrace deep(unit::fake_frames(64, 8));  // every frame is kept
    cache.update_bt_cache(deep);
    ASSERT_TRUE(cache.find_and_update_bt_sym(out, deep.get_cookie()));
    EXPECT_EQ(out.size(), 64u);
}

TEST_F(SymbolCache, FailedSymbolizationIsRetriedLater) {
    backtrace bt(unit::fake_frames(2, 11));
    cache.update_bt_cache(bt);
    tarvex::backtrace_symbols_cache::s_symbolizer = unit::failing_symbolizer;
    std::vector<std::string> out = untouched;
    EXPECT_FALSE(cache.find_and_update_bt_sym(out, bt.get_cookie()));
    EXPECT_FALSE(cache.find_bt_sym(out, bt.get_cookie()));
    EXPECT_EQ(out, untouched);
    tarvex::backtrace_symbols_cache::s_symbolizer = unit::fake_symbolizer;
    EXPECT_TRUE(cache.find_and_update_bt_sym(out, bt.get_cookie()));
    EXPECT_EQ(out, (std::vector<std::string>{"L0", "L1"}));
    EXPECT_EQ(unit::g_symbolizer_calls, 2);
}

TEST_F(SymbolCache, LinesAreStoredAsTheCLibraryWritesThem) {
    tarvex::backtrace_symbols_cache::s_symbolizer = nullptr;
    backtrace bt = unit_capture_stack();
    ASSERT_GT(bt.get_bt_len(), 0);
    cache.update_bt_cache(bt);
    std::vector<std::string> out;
    ASSERT_TRUE(cache.find_and_update_bt_sym(out, bt.get_cookie()));
    char** expected = ::backtrace_symbols(bt.get_bt(), bt.get_bt_len());
    ASSERT_NE(expected, nullptr);
    ASSERT_EQ(out.size(), size_t(bt.get_bt_len()));
    for (int i = 0; i < bt.get_bt_len(); ++i) EXPECT_EQ(out[i], expected[i]);
    free(expected);
    size_t caller = size_t(constructor_frame(bt)) + 1;
    EXPECT_NE(out[caller].find("unit_capture_stack"), std::string::npos) << out[caller];
}

}  // namespace

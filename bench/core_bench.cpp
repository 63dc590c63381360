// The pieces of a tracked call, timed one by one on the library's classes
// (tarvex_core, nothing interposed): the reentrancy guard, stack capture and
// its uid, the stack cache, the footer, the registry and the quarantine.
// bench/run.sh sets them beside the whole tracked path.
#include <benchmark/benchmark.h>
#include <execinfo.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "trvx_stat.h"
#include "trvx_util.h"

namespace {

// ---------------------------------------------------------------- guard

tarvex::thread_map& shared_guard() {
    static tarvex::thread_map* map = new tarvex::thread_map();
    return *map;
}

// One take and one release of a slot (the form the control functions use).
// With two threads both contend for the guard's mutex.
void BM_guard_take_release(benchmark::State& state) {
    tarvex::thread_map& guard = shared_guard();
    for (auto _ : state) {
        bool taken = guard.check_and_set_current_thread();
        benchmark::DoNotOptimize(taken);
        if (taken) guard.remove_current_thread();
    }
}
BENCHMARK(BM_guard_take_release)->Threads(1)->Threads(2)->UseRealTime();

// The thread-local form that the allocation paths take on every tracked call.
void BM_guard_try_enter_leave(benchmark::State& state) {
    tarvex::thread_map& guard = shared_guard();
    for (auto _ : state) {
        bool taken = guard.try_enter();
        benchmark::DoNotOptimize(taken);
        if (taken) guard.leave();
    }
}
BENCHMARK(BM_guard_try_enter_leave)->Threads(1)->Threads(2)->UseRealTime();

// ---------------------------------------------------------------- call stacks

// Runs body with `extra` more frames on the stack than the caller has.
__attribute__((noinline)) void run_deeper(int extra, benchmark::State& state,
                                          void (*body)(benchmark::State&)) {
    if (extra <= 0) return body(state);
    run_deeper(extra - 1, state, body);
    asm volatile("" ::: "memory");  // a real call, not a jump
}

// tarvex's capture (return addresses and uid), and glibc's backtrace() for
// comparison, at the benchmark's own depth plus the argument.
__attribute__((noinline)) void capture_loop(benchmark::State& state) {
    int frames = 0;
    for (auto _ : state) {
        tarvex::backtrace bt;
        frames = bt.get_bt_len();
        benchmark::DoNotOptimize(bt.get_cookie());
    }
    state.SetLabel("frames:" + std::to_string(frames));
}
void BM_backtrace_capture(benchmark::State& state) {
    run_deeper(static_cast<int>(state.range(0)), state, capture_loop);
}
BENCHMARK(BM_backtrace_capture)->Arg(0)->Arg(20);

__attribute__((noinline)) void glibc_loop(benchmark::State& state) {
    void* frames[tarvex::backtrace::k_capacity];
    int n = 0;
    for (auto _ : state) {
        n = ::backtrace(frames, tarvex::backtrace::k_capacity);
        benchmark::DoNotOptimize(frames);
    }
    state.SetLabel("frames:" + std::to_string(n));
}
void BM_glibc_backtrace(benchmark::State& state) {
    run_deeper(static_cast<int>(state.range(0)), state, glibc_loop);
}
BENCHMARK(BM_glibc_backtrace)->Arg(0)->Arg(20);

// The uid alone, over as many return addresses as the argument.
void BM_stack_uid(benchmark::State& state) {
    std::vector<void*> frames(static_cast<size_t>(state.range(0)));
    for (size_t i = 0; i < frames.size(); ++i) frames[i] = reinterpret_cast<void*>(0x400000 + 0x1234 * i);
    for (auto _ : state) {
        benchmark::DoNotOptimize(frames.data());
        benchmark::DoNotOptimize(tarvex::stack_uid(frames.data(), static_cast<int>(frames.size())));
    }
}
BENCHMARK(BM_stack_uid)->Arg(5)->Arg(30);

// A stack that the cache already holds: one lock and one look-up.
void BM_stack_cache_hit(benchmark::State& state) {
    static tarvex::backtrace_symbols_cache* cache = new tarvex::backtrace_symbols_cache();
    std::vector<void*> frames(30);
    for (size_t i = 0; i < frames.size(); ++i) frames[i] = reinterpret_cast<void*>(0x400000 + 0x1234 * i);
    tarvex::backtrace bt(frames);
    cache->update_bt_cache(bt);
    for (auto _ : state) cache->update_bt_cache(bt);
}
BENCHMARK(BM_stack_cache_hit);

// ---------------------------------------------------------------- footer

// Fill, footer with 32 frames, verify, poison: the bytes a tracked 32-byte
// malloc+free pair writes and reads.
void BM_footer_and_fill(benchmark::State& state) {
    size_t size = static_cast<size_t>(state.range(0));
    std::vector<unsigned char> block(size + tarvex::k_footer_size);
    std::vector<void*> frames(32);
    for (size_t i = 0; i < frames.size(); ++i) frames[i] = reinterpret_cast<void*>(0x400000 + 0x1234 * i);
    tarvex::backtrace bt(frames);
    tarvex::block_info bi;
    bi.m_addr = block.data();
    bi.m_size = size;
    bi.m_alloc_size = size + tarvex::k_footer_size;
    bi.m_alloc_uid = bt.get_cookie();
    for (auto _ : state) {
        memset(bi.m_addr, 0xDE, size);
        tarvex::block_info::update_block_info_footer(bt, bi.create_footer());
        benchmark::DoNotOptimize(bi.verify_footer());
        tarvex::block_info::update_block_info_footer(bt, bi.footer());
        memset(bi.m_addr, 0xDD, size);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_footer_and_fill)->Arg(32);

// ---------------------------------------------------------------- registry

// A store already holding `live` blocks (made-up addresses 64 bytes apart;
// the store never touches the memory). Built once per size and kept.
constexpr uintptr_t k_base = 0x100000000ULL;

tarvex::mem_stats& store_with(long live) {
    static std::mutex m;
    static std::map<long, tarvex::mem_stats*> stores;
    std::lock_guard<std::mutex> lock(m);
    tarvex::mem_stats*& s = stores[live];
    if (s == nullptr) {
        s = new tarvex::mem_stats();
        for (long i = 0; i < live; ++i) {
            tarvex::block_info bi;
            bi.m_addr = reinterpret_cast<void*>(k_base + 64 * static_cast<uintptr_t>(i));
            bi.m_size = 32;
            bi.m_alloc_size = 32 + tarvex::k_footer_size;
            bi.m_alloc_uid = 1;
            s->insert_block_info(bi);
        }
    }
    return *s;
}

// Insert and remove of a block among `live` others, at random places of the
// address range, as a malloc+free pair does.
void BM_registry_insert_remove(benchmark::State& state) {
    long live = state.range(0);
    tarvex::mem_stats& store = store_with(live);
    std::vector<uintptr_t> keys(4096);
    uint64_t rng = 88172645463325252ULL + static_cast<uint64_t>(state.thread_index());
    for (uintptr_t& k : keys) {
        rng ^= rng << 13;
        rng ^= rng >> 7;
        rng ^= rng << 17;
        // Between two live blocks, never equal to another thread's key.
        k = k_base + 64 * (rng % static_cast<uint64_t>(live)) + 16 + 8 * static_cast<uintptr_t>(state.thread_index());
    }
    size_t i = 0;
    for (auto _ : state) {
        tarvex::block_info bi;
        bi.m_addr = reinterpret_cast<void*>(keys[i++ & 4095]);
        bi.m_size = 32;
        bi.m_alloc_size = 32 + tarvex::k_footer_size;
        bi.m_alloc_uid = 1;
        store.insert_block_info(bi);
        tarvex::block_info out;
        benchmark::DoNotOptimize(store.find_and_remove_block_info(bi.m_addr, out));
    }
}
BENCHMARK(BM_registry_insert_remove)->Arg(10000)->Arg(2000000)->Threads(1)->Threads(2)->UseRealTime();

// ---------------------------------------------------------------- quarantine

// Steady state of a full 10 MiB quarantine of 312-byte blocks: each release
// enters one block and takes the ones now due, as a tracked free does.
void BM_quarantine_cycle(benchmark::State& state) {
    static tarvex::mem_stats* store = new tarvex::mem_stats();
    static uintptr_t next = 0x200000000ULL;
    auto release = [&]() {
        tarvex::block_info bi;
        bi.m_addr = reinterpret_cast<void*>(next);
        next += 512;
        bi.m_size = 32;
        bi.m_alloc_size = 32 + tarvex::k_footer_size;
        void* due[16];
        size_t n = store->delayed_free_and_take(bi, due, 16);
        benchmark::DoNotOptimize(due);
        if (n == 16)
            while (void* p = store->get_next_to_free()) benchmark::DoNotOptimize(p);
    };
    while (store->quarantine_bytes() + 312 <= tarvex::k_quarantine_limit) release();
    for (auto _ : state) release();
    state.SetLabel("held:" + std::to_string(store->quarantine_block_count()));
}
BENCHMARK(BM_quarantine_cycle);

}  // namespace

BENCHMARK_MAIN();

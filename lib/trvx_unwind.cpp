#include "trvx_unwind.h"

#include <dlfcn.h>
#include <execinfo.h>
#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "trvx_thread_exit.h"
#include "trvx_uid.h"

extern "C" {
struct trvx_eh_bases {
    void* tbase;
    void* dbase;
    void* func;
};
// libgcc's own FDE lookup: the same table search its unwinder makes. In the
// preloaded library this is the copy of libgcc linked into it.
const void* _Unwind_Find_FDE(void* pc, trvx_eh_bases* bases);
typedef const void* (*trvx_find_fde_fn)(void* pc, trvx_eh_bases* bases);
int trvx_unwind_from(void** frames, int max, uintptr_t ra, uintptr_t sp, uintptr_t fp, uint32_t* uid);
}

// Entry point: moves the uid pointer to the sixth argument, records the
// caller's return address, stack pointer after the return and frame pointer,
// then continues in trvx_unwind_from with the
// caller's return address still on the stack, so that a fall-back call of
// glibc's backtrace() from there sees the same frames.
asm(R"(
    .text
    .globl trvx_capture_stack
    .hidden trvx_capture_stack
    .type trvx_capture_stack,@function
trvx_capture_stack:
    .cfi_startproc
    movq %rdx, %r9
    movq (%rsp), %rdx
    leaq 8(%rsp), %rcx
    movq %rbp, %r8
    jmp trvx_unwind_from
    .cfi_endproc
    .size trvx_capture_stack, .-trvx_capture_stack
)");

namespace tarvex {

#ifdef TARVEX_VERIFY_UNWIND
bool g_verify_unwind = true;
#else
bool g_verify_unwind = false;
#endif

namespace {

// DWARF register numbers of x86-64.
constexpr unsigned k_reg_rbp = 6;
constexpr unsigned k_reg_rsp = 7;
constexpr unsigned k_reg_ra = 16;

// ---------------------------------------------------------------- FDE lookup

// The shared libgcc's lookup once load_shared_unwinder() found it; until
// then the one this code was linked with.
trvx_find_fde_fn g_find_fde;

const void* find_fde(void* pc, trvx_eh_bases* bases) {
    trvx_find_fde_fn f = __atomic_load_n(&g_find_fde, __ATOMIC_ACQUIRE);
    return f != nullptr ? f(pc, bases) : _Unwind_Find_FDE(pc, bases);
}

// ---------------------------------------------------------------- rules

enum rule_kind : uint64_t {
    k_invalid = 0,      // no rule (cache slot empty)
    k_step = 1,         // unwind one frame with the rule
    k_last = 2,         // the return address is undefined: this frame is the last
    k_no_tables = 3,    // no unwind tables: this frame is recorded and is the last
    k_unsupported = 4,  // fall back on glibc
};

// A rule packed in 64 bits: kind (3), frame base in rbp (1), rbp saved (1),
// unused (11), rbp's offset from the frame base (16), frame base offset (32).
struct rule {
    uint64_t kind;
    bool cfa_rbp;
    bool rbp_saved;
    int32_t rbp_off;
    int32_t cfa_off;
};

uint64_t pack(const rule& r) {
    return r.kind | (uint64_t(r.cfa_rbp) << 3) | (uint64_t(r.rbp_saved) << 4) |
           (uint64_t(uint16_t(r.rbp_off)) << 16) | (uint64_t(uint32_t(r.cfa_off)) << 32);
}

rule unpack(uint64_t v) {
    rule r;
    r.kind = v & 7;
    r.cfa_rbp = (v >> 3) & 1;
    r.rbp_saved = (v >> 4) & 1;
    r.rbp_off = int16_t(uint16_t(v >> 16));
    r.cfa_off = int32_t(uint32_t(v >> 32));
    return r;
}

// ---------------------------------------------------------------- reading .eh_frame

struct reader {
    const uint8_t* p;
    const uint8_t* end;
    bool ok = true;

    uint8_t u8() {
        if (p >= end) return fail();
        return *p++;
    }
    uint64_t uleb() {
        uint64_t v = 0;
        for (unsigned shift = 0; shift < 64; shift += 7) {
            uint8_t b = u8();
            v |= uint64_t(b & 0x7f) << shift;
            if (!(b & 0x80)) return v;
        }
        return fail();
    }
    int64_t sleb() {
        // Assembled unsigned: a signed shift into bit 63, or the negation of
        // the lowest value, would be undefined.
        uint64_t v = 0;
        unsigned shift = 0;
        uint8_t b;
        do {
            b = u8();
            v |= uint64_t(b & 0x7f) << shift;
            shift += 7;
        } while ((b & 0x80) && shift < 64);
        if (shift < 64 && (b & 0x40)) v |= ~uint64_t(0) << shift;
        return int64_t(v);
    }
    template <class T>
    T fixed() {
        T v;
        if (end - p < static_cast<long>(sizeof v)) return T(fail());
        memcpy(&v, p, sizeof v);
        p += sizeof v;
        return v;
    }
    // Skips an encoded pointer; true if its encoding is known.
    bool skip_encoded(uint8_t enc) {
        if (enc == 0xff) return true;
        switch (enc & 0x0f) {
            case 0x00: fixed<uint64_t>(); return ok;
            case 0x01: uleb(); return ok;
            case 0x02: case 0x0a: fixed<uint16_t>(); return ok;
            case 0x03: case 0x0b: fixed<uint32_t>(); return ok;
            case 0x04: case 0x0c: fixed<uint64_t>(); return ok;
            case 0x09: sleb(); return ok;
            default: fail(); return false;
        }
    }
    // Reads a value of an encoding's format, without its application.
    uint64_t raw_encoded(uint8_t enc) {
        switch (enc & 0x0f) {
            case 0x00: return fixed<uint64_t>();
            case 0x01: return uleb();
            case 0x02: return fixed<uint16_t>();
            case 0x03: return fixed<uint32_t>();
            case 0x04: return fixed<uint64_t>();
            case 0x09: return uint64_t(sleb());
            case 0x0a: return uint64_t(int64_t(fixed<int16_t>()));
            case 0x0b: return uint64_t(int64_t(fixed<int32_t>()));
            case 0x0c: return fixed<uint64_t>();
            default: return fail();
        }
    }
    uint8_t fail() {
        ok = false;
        p = end;
        return 0;
    }
};

// How a register of interest is recovered, as libgcc tracks it.
enum reg_how : uint8_t { k_unsaved, k_offset, k_undefined, k_other };

struct reg_rule {
    reg_how how = k_unsaved;
    int64_t off = 0;
};

struct frame_state {
    unsigned cfa_reg = k_reg_rsp;
    int64_t cfa_off = 0;
    bool cfa_expr = false;
    reg_rule rbp;
    reg_rule ra;
};

struct cie_info {
    uint64_t code_align = 1;
    int64_t data_align = 1;
    uint64_t ra_column = k_reg_ra;
    uint8_t fde_enc = 0;
    bool augmented = false;
    bool signal_frame = false;
    const uint8_t* insns = nullptr;
    const uint8_t* end = nullptr;
};

bool parse_cie(const uint8_t* cie, cie_info& out) {
    uint32_t len;
    memcpy(&len, cie, 4);
    if (len == 0 || len == 0xffffffff) return false;
    reader r{cie + 8, cie + 4 + len};
    uint8_t version = r.u8();
    const char* aug = reinterpret_cast<const char*>(r.p);
    size_t aug_len = strnlen(aug, r.end - r.p);
    r.p += aug_len + 1;
    if (strstr(aug, "eh")) return false;
    out.code_align = r.uleb();
    out.data_align = r.sleb();
    out.ra_column = version == 1 ? r.u8() : r.uleb();
    if (aug[0] == 'z') {
        out.augmented = true;
        uint64_t data_len = r.uleb();
        const uint8_t* data_end = r.p + data_len;
        for (const char* a = aug + 1; *a && r.ok; ++a) {
            switch (*a) {
                case 'R': out.fde_enc = r.u8(); break;
                case 'L': r.u8(); break;
                case 'P': r.skip_encoded(r.u8()); break;
                case 'S': out.signal_frame = true; break;
                default: return false;
            }
        }
        if (!r.ok || data_end > r.end) return false;
        r.p = data_end;
    } else if (aug[0] != '\0') {
        return false;
    }
    out.insns = r.p;
    out.end = r.end;
    return r.ok;
}

reg_rule* tracked_reg(frame_state& fs, uint64_t reg) {
    if (reg == k_reg_rbp) return &fs.rbp;
    if (reg == k_reg_ra) return &fs.ra;
    return nullptr;
}

// Runs a call-frame program while its location lies below target. False on
// anything that the cached rules cannot express.
// A factored offset. Wrapping arithmetic: malformed tables give a wrong
// offset (which the rule's range checks then reject), never undefined
// behaviour.
int64_t factored(uint64_t value, int64_t factor) { return int64_t(value * uint64_t(factor)); }

bool run_program(reader r, const cie_info& cie, frame_state& fs, uintptr_t& loc, uintptr_t target) {
    frame_state stack[8];
    int depth = 0;
    auto set = [&](uint64_t reg, reg_how how, int64_t off) {
        if (reg == k_reg_rsp && how != k_unsaved) return false;
        if (reg_rule* rr = tracked_reg(fs, reg)) *rr = reg_rule{how, off};
        return true;
    };
    while (r.p < r.end && loc < target) {
        uint8_t op = r.u8();
        uint8_t hi = op & 0xc0, lo = op & 0x3f;
        if (hi == 0x40) {
            loc += lo * cie.code_align;
        } else if (hi == 0x80) {
            if (!set(lo, k_offset, factored(r.uleb(), cie.data_align))) return false;
        } else if (hi == 0xc0) {
            if (!set(lo, k_unsaved, 0)) return false;
        } else {
            switch (op) {
                case 0x00: break;  // nop
                case 0x01: return false;  // set_loc: rare, left to glibc
                case 0x02: loc += r.u8() * cie.code_align; break;
                case 0x03: loc += r.fixed<uint16_t>() * cie.code_align; break;
                case 0x04: loc += r.fixed<uint32_t>() * cie.code_align; break;
                case 0x05: { uint64_t reg = r.uleb(); if (!set(reg, k_offset, factored(r.uleb(), cie.data_align))) return false; break; }
                case 0x06: if (!set(r.uleb(), k_unsaved, 0)) return false; break;
                case 0x07: { uint64_t reg = r.uleb(); if (reg == k_reg_rsp) return false; if (!set(reg, k_undefined, 0)) return false; break; }
                case 0x08: if (!set(r.uleb(), k_unsaved, 0)) return false; break;
                case 0x09: { uint64_t reg = r.uleb(); r.uleb(); if (reg == k_reg_rsp || tracked_reg(fs, reg)) return false; break; }
                case 0x0a: if (depth == 8) return false; stack[depth++] = fs; break;
                case 0x0b: if (depth == 0) return false; fs = stack[--depth]; break;
                case 0x0c: fs.cfa_reg = unsigned(r.uleb()); fs.cfa_off = int64_t(r.uleb()); fs.cfa_expr = false; break;
                case 0x0d: fs.cfa_reg = unsigned(r.uleb()); fs.cfa_expr = false; break;
                case 0x0e: fs.cfa_off = int64_t(r.uleb()); break;
                case 0x0f: { fs.cfa_expr = true; uint64_t n = r.uleb(); r.p += n; break; }
                case 0x10: case 0x16: { uint64_t reg = r.uleb(); uint64_t n = r.uleb(); r.p += n; if (reg == k_reg_rsp || !set(reg, k_other, 0)) return false; break; }
                case 0x11: { uint64_t reg = r.uleb(); if (!set(reg, k_offset, factored(uint64_t(r.sleb()), cie.data_align))) return false; break; }
                case 0x12: fs.cfa_reg = unsigned(r.uleb()); fs.cfa_off = factored(uint64_t(r.sleb()), cie.data_align); fs.cfa_expr = false; break;
                case 0x13: fs.cfa_off = factored(uint64_t(r.sleb()), cie.data_align); break;
                case 0x14: { uint64_t reg = r.uleb(); r.uleb(); if (reg == k_reg_rsp || !set(reg, k_other, 0)) return false; break; }
                case 0x15: { uint64_t reg = r.uleb(); r.sleb(); if (reg == k_reg_rsp || !set(reg, k_other, 0)) return false; break; }
                case 0x2e: r.uleb(); break;  // GNU_args_size
                case 0x2f: { uint64_t reg = r.uleb(); if (!set(reg, k_offset, factored(0 - r.uleb(), cie.data_align))) return false; break; }
                default: return false;
            }
        }
        if (!r.ok) return false;
    }
    return true;
}

// The rule of the frame whose return address (instruction pointer) is pc.
rule compute_rule(uintptr_t pc) {
    rule out{k_unsupported, false, false, 0, 0};
    trvx_eh_bases bases{};
    const uint8_t* fde = static_cast<const uint8_t*>(find_fde(reinterpret_cast<void*>(pc - 1), &bases));
    if (fde == nullptr) {
        // libgcc recognises the signal return trampoline by its code
        // (mov $15, %rax; syscall) and walks on through the signal frame.
        static const uint8_t k_sigreturn[] = {0x48, 0xc7, 0xc0, 0x0f, 0x00, 0x00, 0x00, 0x0f, 0x05};
        if (memcmp(reinterpret_cast<const void*>(pc), k_sigreturn, sizeof k_sigreturn) != 0) out.kind = k_no_tables;
        return out;
    }
    uint32_t len, cie_off;
    memcpy(&len, fde, 4);
    if (len == 0xffffffff) return out;
    memcpy(&cie_off, fde + 4, 4);
    cie_info cie;
    if (!parse_cie(fde + 4 - cie_off, cie) || cie.signal_frame || cie.ra_column != k_reg_ra) return out;

    // Like libgcc: the CIE's program and then the FDE's, both only while the
    // location (starting at the function's first byte) lies below pc.
    frame_state fs;
    uintptr_t loc = reinterpret_cast<uintptr_t>(bases.func);
    if (!run_program(reader{cie.insns, cie.end}, cie, fs, loc, pc)) return out;
    reader r{fde + 8, fde + 4 + len};
    r.raw_encoded(cie.fde_enc);  // pc_begin: taken from bases.func instead
    r.raw_encoded(cie.fde_enc & 0x0f);
    if (cie.augmented) r.p += r.uleb();
    if (!r.ok) return out;
    if (!run_program(r, cie, fs, loc, pc)) return out;

    if (fs.cfa_expr || (fs.cfa_reg != k_reg_rsp && fs.cfa_reg != k_reg_rbp)) return out;
    if (fs.cfa_off < INT32_MIN || fs.cfa_off > INT32_MAX) return out;
    if (fs.ra.how == k_undefined) {
        out.kind = k_last;
        return out;
    }
    if (fs.ra.how != k_offset || fs.ra.off != -8) return out;
    if (fs.rbp.how == k_offset) {
        if (fs.rbp.off < INT16_MIN || fs.rbp.off > INT16_MAX) return out;
        out.rbp_saved = true;
        out.rbp_off = int32_t(fs.rbp.off);
    } else if (fs.rbp.how != k_unsaved) {
        return out;
    }
    out.kind = k_step;
    out.cfa_rbp = fs.cfa_reg == k_reg_rbp;
    out.cfa_off = int32_t(fs.cfa_off);
    return out;
}

// ---------------------------------------------------------------- rule cache

// Direct-mapped and lock-free, each slot under a sequence counter: a writer
// makes the counter odd, writes key, rule and generation, and makes it even
// again; a reader accepts what it read only when the counter was even and
// unchanged around its reads, so it never mixes two writers' entries. The
// generation is the whole 64-bit count of invalidations, so a rule cached
// before code was unloaded is never taken for the code loaded after.
constexpr size_t k_cache_slots = 1 << 14;
struct cache_slot {
    uint64_t seq;
    uint64_t key;
    uint64_t value;
    uint64_t generation;
};
cache_slot g_cache[k_cache_slots];
uint64_t g_generation = 1;

size_t slot_of(uintptr_t pc) { return ((pc * 0x9E3779B97F4A7C15ULL) >> 50) & (k_cache_slots - 1); }

rule lookup_rule(uintptr_t pc) {
    cache_slot& s = g_cache[slot_of(pc)];
    uint64_t gen = __atomic_load_n(&g_generation, __ATOMIC_ACQUIRE);
    uint64_t seq = __atomic_load_n(&s.seq, __ATOMIC_ACQUIRE);
    if ((seq & 1) == 0) {
        // Acquire loads keep the second read of the counter behind them (a
        // fence would do the same, but ThreadSanitizer builds reject fences).
        uint64_t key = __atomic_load_n(&s.key, __ATOMIC_ACQUIRE);
        uint64_t value = __atomic_load_n(&s.value, __ATOMIC_ACQUIRE);
        uint64_t generation = __atomic_load_n(&s.generation, __ATOMIC_ACQUIRE);
        if (__atomic_load_n(&s.seq, __ATOMIC_RELAXED) == seq && key == pc && generation == gen &&
            (value & 7) != k_invalid)
            return unpack(value);
    }
    rule r = compute_rule(pc);
    if ((seq & 1) == 0 && __atomic_compare_exchange_n(&s.seq, &seq, seq + 1, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED)) {
        __atomic_store_n(&s.key, pc, __ATOMIC_RELAXED);
        __atomic_store_n(&s.value, pack(r), __ATOMIC_RELAXED);
        __atomic_store_n(&s.generation, gen, __ATOMIC_RELAXED);
        __atomic_store_n(&s.seq, seq + 2, __ATOMIC_RELEASE);
    }
    return r;
}

// ---------------------------------------------------------------- walk

// Each thread of the target keeps the rules of the return addresses it met
// last in a table of its own: a walk through hot code reads one line of the
// thread's own memory per frame instead of a slot of the shared cache and
// its sequence counter. The table has 512 sets of two ways: an interpreter's
// walks meet a few thousand return addresses, and with 128 sets six times as
// many of its lookups missed; with one way, two return addresses of a hot
// path that happened to share a slot (decided by where the code was loaded)
// would evict each other on every walk. A new rule goes into the first way
// and moves the older one to the second.
//
// The table (16 KiB; 24 KiB with the kept walks below) is mapped at the
// thread's first walk and unmapped when the thread exits, so that threads of
// other processes, and threads that never allocate, carry nothing but three
// words of thread-local storage. A change of the shared generation (code
// unloaded) empties it, kept walks included, before its next use. A walk
// that starts while the thread's table is in use (from a signal handler that
// interrupted a walk), or in a thread whose table could not be mapped or is
// already given back, reads the shared cache only.
constexpr size_t k_thread_sets = 512;

// The last few walks of the thread, each kept with every stack word it read
// and used, in the order it read them. The walk is a function of its start
// (return address, stack pointer, frame pointer when a frame base used it),
// of the rules (fixed within a generation) and of these words: when they all
// still hold the same values, walking again would give the same frames and
// the same uid, so both are copied instead. The check stops at the first
// word that differs, so it reads only words that the walk itself would read.
// A thread's calls into malloc and free from a loop repeat the same few
// stacks; the check is a run of independent loads where the walk is a chain
// of dependent ones (each frame's base needs the one before), and the uid's
// chain of multiplications is not run at all. Several kept walks may start
// at the same place (one internal function captures for several entry
// points); a capture tries each. 80 words cover a walk of 64 frames whose
// frame pointers matter in a quarter of them; a longer record is not kept.
constexpr int k_memo_entries = 4;
constexpr int k_memo_reads = 80;
struct memo_entry {
    struct word {
        uintptr_t addr;
        uintptr_t value;
    };
    int32_t max;
    int32_t n;
    int32_t nreads;
    uint32_t uid;
    bool fp_used;  // a frame base was computed from the starting frame pointer
    uintptr_t fp;
    word reads[k_memo_reads];
    void* frames[k_uid_frames];
};
struct memo_key {
    uintptr_t pc;  // 0: empty
    uintptr_t sp;
};

struct thread_rules {
    struct way {
        uintptr_t key;
        uint64_t value;
    };
    struct alignas(32) set {
        way ways[2];
    } sets[k_thread_sets];
    alignas(64) memo_key memo_keys[k_memo_entries];
    uint32_t memo_next;
    memo_entry memo[k_memo_entries];
};
__thread thread_rules* t_rules __attribute__((tls_model("initial-exec")));
__thread uint64_t t_rules_generation __attribute__((tls_model("initial-exec")));
// Set while a walk uses the table; for good once the table is given back or
// could not be made.
__thread bool t_rules_busy __attribute__((tls_model("initial-exec")));

// At the thread's exit: later walks of the thread (other keys' destructors
// may still allocate) read the shared cache only.
void drop_thread_rules(void* table) {
    t_rules_busy = true;
    __atomic_signal_fence(__ATOMIC_SEQ_CST);
    t_rules = nullptr;
    munmap(table, sizeof(thread_rules));
}

// Called with t_rules_busy set, inside the library.
__attribute__((noinline)) thread_rules* make_thread_rules() {
    void* m = mmap(nullptr, sizeof(thread_rules), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (m == MAP_FAILED) return nullptr;
    if (!thread_exit_key<drop_thread_rules>::set(m)) {
        munmap(m, sizeof(thread_rules));
        return nullptr;
    }
    // Empty as mapped: valid for whatever generation is current.
    t_rules_generation = __atomic_load_n(&g_generation, __ATOMIC_ACQUIRE);
    return static_cast<thread_rules*>(m);
}

rule thread_rule(thread_rules* tr, uintptr_t pc) {
    if (tr == nullptr) return lookup_rule(pc);
    auto& s = tr->sets[(pc * 0x9E3779B97F4A7C15ULL) >> 55];
    if (s.ways[0].key == pc) return unpack(s.ways[0].value);
    if (s.ways[1].key == pc) return unpack(s.ways[1].value);
    rule r = lookup_rule(pc);
    s.ways[1] = s.ways[0];
    s.ways[0] = {pc, pack(r)};
    return r;
}

thread_rules* claim_thread_rules() {
    if (t_rules_busy) return nullptr;
    t_rules_busy = true;
    __atomic_signal_fence(__ATOMIC_SEQ_CST);
    thread_rules* tr = t_rules;
    if (__builtin_expect(tr == nullptr, 0)) {
        tr = make_thread_rules();
        // Without a table the thread stays busy: no later walk tries again.
        if (tr == nullptr) return nullptr;
        t_rules = tr;
    }
    uint64_t gen = __atomic_load_n(&g_generation, __ATOMIC_ACQUIRE);
    if (t_rules_generation != gen) {
        memset(tr->sets, 0, sizeof tr->sets);
        memset(tr->memo_keys, 0, sizeof tr->memo_keys);
        t_rules_generation = gen;
    }
    return tr;
}

void release_thread_rules(thread_rules* tr) {
    if (tr == nullptr) return;
    __atomic_signal_fence(__ATOMIC_SEQ_CST);
    t_rules_busy = false;
}

// ---------------------------------------------------------------- memo of walks

// The kept walk that starts where this one does and whose words still hold,
// or -1.
int replay(thread_rules* tr, void** frames, int max, uintptr_t pc, uintptr_t sp, uintptr_t fp, uint64_t& uid) {
    for (int k = 0; k < k_memo_entries; ++k) {
        if (tr->memo_keys[k].pc != pc || tr->memo_keys[k].sp != sp) continue;
        const memo_entry& e = tr->memo[k];
        if (e.max != max || (e.fp_used && e.fp != fp)) continue;
        int i = 0;
        while (i < e.nreads && *reinterpret_cast<const uintptr_t*>(e.reads[i].addr) == e.reads[i].value) ++i;
        if (i < e.nreads) continue;
        memcpy(frames, e.frames, sizeof(void*) * size_t(e.n));
        uid = e.uid;
        return e.n;
    }
    return -1;
}

// Writes a walk into an entry of the memo while it runs (or nothing, when
// the thread has no table). The entry is taken out of the keys first and
// given its key only once the walk has ended within its capacity.
template <bool Keep>
struct recorder {
    memo_entry* e = nullptr;
    int nreads = 0;
    bool fp_used = false;
    uintptr_t fp_from = 0;  // where the frame pointer was last read; 0: the register
    bool fp_kept = false;   // the frame pointer's word is among the reads

    void read(uintptr_t addr, uintptr_t value) {
        if (!Keep) return;
        if (nreads < k_memo_reads) e->reads[nreads] = {addr, value};
        ++nreads;
    }
    // A frame base is computed from the frame pointer fp.
    void use_fp(uintptr_t fp) {
        if (!Keep || fp_kept) return;
        fp_kept = true;
        if (fp_from == 0)
            fp_used = true;
        else
            read(fp_from, fp);
    }
    // The frame pointer is reloaded from addr.
    void load_fp(uintptr_t addr) {
        fp_from = addr;
        fp_kept = false;
    }
};

template <bool Keep>
int walk_frames(void** frames, int max, uintptr_t pc, uintptr_t sp, uintptr_t fp, uint64_t& uid,
                thread_rules* tr, recorder<Keep>& rec) {
    uid = pc;
    int n = 0;
    uintptr_t prev_pc = 0, prev_sp = 0;
    while (n < max) {
        if (n > 0 && pc == prev_pc && sp == prev_sp) break;  // no progress: the walk ends here
        rule r = thread_rule(tr, pc);
        if (r.kind == k_unsupported) return -1;
        if (n < k_uid_frames) uid = uid_step(uid, n, reinterpret_cast<void*>(pc));
        frames[n++] = reinterpret_cast<void*>(pc);
        // At max the walk ends without reading the next frame's words.
        if (r.kind != k_step || n == max) break;
        if (r.cfa_rbp) rec.use_fp(fp);
        uintptr_t cfa = (r.cfa_rbp ? fp : sp) + intptr_t(r.cfa_off);
        prev_pc = pc;
        prev_sp = sp;
        pc = *reinterpret_cast<const uintptr_t*>(cfa - 8);
        rec.read(cfa - 8, pc);
        if (r.rbp_saved) {
            fp = *reinterpret_cast<const uintptr_t*>(cfa + intptr_t(r.rbp_off));
            rec.load_fp(cfa + intptr_t(r.rbp_off));
        }
        sp = cfa;
        if (pc == 0) break;
    }
    return n;
}

// Walks and keeps the result in the memo's next entry.
int walk_and_keep(void** frames, int max, uintptr_t pc, uintptr_t sp, uintptr_t fp, uint64_t& uid,
                  thread_rules* tr) {
    int k = int(tr->memo_next++ % k_memo_entries);
    tr->memo_keys[k].pc = 0;
    memo_entry& e = tr->memo[k];
    recorder<true> rec;
    rec.e = &e;
    int n = walk_frames(frames, max, pc, sp, fp, uid, tr, rec);
    if (n <= 0 || n > k_uid_frames || rec.nreads > k_memo_reads) return n;
    e.max = max;
    e.n = n;
    e.nreads = rec.nreads;
    e.uid = uint32_t(uid);
    e.fp_used = rec.fp_used;
    e.fp = fp;
    memcpy(e.frames, frames, sizeof(void*) * size_t(n));
    tr->memo_keys[k] = {pc, sp};
    return n;
}

// 0..n: count; -1: fall back on glibc. The stack's uid goes to uid.
int walk(void** frames, int max, uintptr_t pc, uintptr_t sp, uintptr_t fp, uint64_t& uid) {
    thread_rules* tr = claim_thread_rules();
    int n;
    if (tr == nullptr) {
        recorder<false> rec;
        n = walk_frames(frames, max, pc, sp, fp, uid, tr, rec);
    } else {
        n = replay(tr, frames, max, pc, sp, fp, uid);
        if (n < 0) n = walk_and_keep(frames, max, pc, sp, fp, uid, tr);
    }
    release_thread_rules(tr);
    return n;
}

// glibc's backtrace() called from here sees frames of the library first;
// what it sees from the return address ra on is what it would return to the
// caller of trvx_capture_stack.
__attribute__((noinline)) int glibc_capture(void** frames, int max, uintptr_t ra) {
    constexpr int k_extra = 4;
    void* all[128 + k_extra];
    int want = max + k_extra < 128 + k_extra ? max + k_extra : 128 + k_extra;
    int n = ::backtrace(all, want);
    int first = 0;
    while (first < n && all[first] != reinterpret_cast<void*>(ra)) ++first;
    if (first == n) return 0;
    int count = n - first < max ? n - first : max;
    memcpy(frames, all + first, sizeof(void*) * size_t(count));
    return count;
}

[[noreturn]] void report_mismatch(void** fast, int nf, void** slow, int ns) {
    char line[128];
    int len = snprintf(line, sizeof line, "tarvex: unwinder mismatch (%d frames vs glibc's %d)\n", nf, ns);
    if (write(2, line, size_t(len)) < 0) abort();
    for (int i = 0; i < nf || i < ns; ++i) {
        len = snprintf(line, sizeof line, "  %2d %18p %18p\n", i, i < nf ? fast[i] : nullptr, i < ns ? slow[i] : nullptr);
        if (write(2, line, size_t(len)) < 0) break;
    }
    abort();
}

}  // namespace

void unwind_cache_invalidate() { __atomic_add_fetch(&g_generation, 1, __ATOMIC_ACQ_REL); }

// glibc's backtrace() loads the same library the same way on its first call.
// Once found, it stays loaded for the life of the process.
void* g_shared_unwinder;

code_range load_shared_unwinder() {
    void* lib = dlopen("libgcc_s.so.1", RTLD_NOW | RTLD_LOCAL);
    void* f = lib != nullptr ? dlsym(lib, "_Unwind_Find_FDE") : nullptr;
    code_range range{0, 0};
    if (f == nullptr) {
        if (lib != nullptr) dlclose(lib);
        return range;
    }
    __atomic_store_n(&g_shared_unwinder, lib, __ATOMIC_RELEASE);
    __atomic_store_n(&g_find_fde, reinterpret_cast<trvx_find_fde_fn>(f), __ATOMIC_RELEASE);
    // Rules read before knew nothing of frames registered at run time.
    unwind_cache_invalidate();
    dl_find_object found;
    if (_dl_find_object(f, &found) == 0)
        range = {reinterpret_cast<uintptr_t>(found.dlfo_map_start), reinterpret_cast<uintptr_t>(found.dlfo_map_end)};
    return range;
}

}  // namespace tarvex

namespace {
uint32_t uid_of(void* const* frames, int n) {
    if (n <= 0) return 0;
    uint64_t h = reinterpret_cast<uint64_t>(frames[0]);
    for (int i = 0; i < n && i < tarvex::k_uid_frames; ++i) h = tarvex::uid_step(h, i, frames[i]);
    return uint32_t(h);
}
}  // namespace

extern "C" __attribute__((visibility("hidden"))) int trvx_unwind_from(void** frames, int max, uintptr_t ra,
                                                                       uintptr_t sp, uintptr_t fp, uint32_t* uid) {
    using namespace tarvex;
    if (max <= 0) {
        if (uid != nullptr) *uid = 0;
        return 0;
    }
    uint64_t h = 0;
    int n = walk(frames, max, ra, sp, fp, h);
    if (n < 0) {
        n = glibc_capture(frames, max, ra);
        if (uid != nullptr) *uid = uid_of(frames, n);
        return n;
    }
    if (g_verify_unwind) {
        void* slow[128];
        int ns = glibc_capture(slow, max < 128 ? max : 128, ra);
        if (ns != n || memcmp(slow, frames, sizeof(void*) * size_t(n)) != 0) report_mismatch(frames, n, slow, ns);
        if (n > 0 && uint32_t(h) != uid_of(frames, n)) report_mismatch(frames, n, slow, ns);
    }
    if (uid != nullptr) *uid = n > 0 ? uint32_t(h) : 0;
    return n;
}

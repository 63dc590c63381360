// Call-stack capture that returns exactly the return addresses that glibc's
// backtrace() returns when called from the same place, at a fraction of its
// cost.
//
// glibc's backtrace() walks with libgcc's unwinder, which reads the unwind
// tables (.eh_frame) of every frame on every call. Here the rule of each
// return address (how to find the caller's frame base, return address and
// frame pointer) is read once from the same tables, through libgcc's own
// FDE lookup, and kept in a small cache. The walk follows libgcc's rules so
// that both agree address for address:
//  - a frame's rule is looked up at its return address minus one, and only
//    the instructions whose location lies below the return address apply;
//  - DW_CFA_restore marks a register as not saved (libgcc's reading);
//  - remember/restore state includes the frame base;
//  - an undefined or zero return address ends the walk without an entry;
//  - a frame without unwind tables is recorded and ends the walk;
//  - the walk stops where an address and its frame base repeat.
// Anything else (signal frames, expressions, frame bases in other registers)
// makes the whole capture fall back on glibc's backtrace().
#pragma once

#include <cstdint>

namespace tarvex {

// Fills frames with at most max return addresses, innermost first; entry 0
// is the return address into the caller of this function. Returns the count.
// When uid is not null it receives the stack's uid (see trvx_uid.h), 0 for an
// empty stack.
extern "C" int trvx_capture_stack(void** frames, int max, uint32_t* uid = nullptr);

// Forgets every cached rule (code may have been unloaded).
void unwind_cache_invalidate();

// The rules come from the FDE lookup of the shared libgcc (libgcc_s), the
// one glibc's backtrace() walks with: only it knows the frames that programs
// register at run time (JIT code). The preloaded library links a copy of
// libgcc in and loads the shared one only when it is about to capture, so
// that the processes that are not the target never load it; until then, and
// where it cannot be loaded, the captures use the copy. Loads it (again
// harmlessly) and returns its address range, empty when it is not there.
struct code_range {
    uintptr_t begin;
    uintptr_t end;
};
code_range load_shared_unwinder();

// The capture then checks every result against glibc's backtrace() and
// aborts on the first difference (a build option for testing the unwinder).
extern bool g_verify_unwind;

}  // namespace tarvex

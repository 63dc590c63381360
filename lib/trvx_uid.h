// The uid of a call stack, computed one frame at a time: the unwinder folds
// each frame in as it finds it, so that this chain of multiplications runs
// beside the walk's chain of loads instead of after it.
//
// h starts as frame 0's address; frame i (i < k_uid_frames) then makes
// h = ((h * b[i]) mod (2^32 - 1) + low 32 bits of frame i) mod 2^32,
// with b[i] a fixed sequence of multipliers.
#pragma once

#include <cstdint>

namespace tarvex {

constexpr int k_uid_frames = 64;

namespace uid_detail {
struct multiplier_table {
    uint64_t b[k_uid_frames];
    constexpr multiplier_table() : b() {
        uint64_t v = 31415;
        for (int i = 0; i < k_uid_frames; ++i) {
            v = (v * 27183) % 0xFFFFFFFFULL;
            b[i] = v;
        }
    }
};
constexpr multiplier_table k_multipliers;

// x mod (2^32 - 1) without a division: 2^32 is 1 modulo 2^32 - 1, so the
// high and low halves add up to a congruent value below 2^33, folded again.
inline uint64_t mod_m32(uint64_t x) {
    const uint64_t m = 0xFFFFFFFFULL;
    x = (x >> 32) + (x & m);
    x = (x >> 32) + (x & m);
    return x >= m ? x - m : x;
}
}  // namespace uid_detail

// Folds frame i (0 <= i < k_uid_frames) into h.
inline uint64_t uid_step(uint64_t h, int i, const void* frame) {
    const uint64_t m = 0xFFFFFFFFULL;
    h = uid_detail::mod_m32(h * uid_detail::k_multipliers.b[i]);
    return (h + (reinterpret_cast<uint64_t>(frame) & m)) & m;
}

}  // namespace tarvex

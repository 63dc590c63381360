// The stack cache's storage: uid to the return addresses first recorded
// under it, in an open-addressed table of 16-byte slots (trvx_uid_map.h),
// each pointing to one block that holds the frames.
//
// A new call site writes one slot and one fresh block. An ordered map wrote
// a node, a separate frame array and, while rebalancing, the links of nodes
// made long before and scattered over the heap; in a forked child (a shell's
// subshells, say) each of those writes copies a page that the parent still
// shares, and the tree's writes were most of such a child's page faults.
// Entries are only added, and removed all at once with the table.
#pragma once

#include <cstddef>
#include <cstdint>

#include "trvx_uid_map.h"

namespace tarvex {

class stack_table {
public:
    struct frames {
        uint64_t len;  // 1 to 64; the addresses follow in the same block
        void** addrs() { return reinterpret_cast<void**>(this + 1); }
        void* const* addrs() const { return reinterpret_cast<void* const*>(this + 1); }
    };

    stack_table() = default;
    stack_table(const stack_table&) = delete;
    stack_table& operator=(const stack_table&) = delete;
    ~stack_table() { clear(); }

    // The frames stored under uid, or null.
    const frames* find(uint32_t uid);
    // Stores a copy of addrs[0..len) under uid unless uid is present (the
    // first stack stays). len is 1 to 64. Throws std::bad_alloc when memory
    // runs out; nothing changes then.
    void insert(uint32_t uid, void* const* addrs, uint32_t len);
    size_t size() const { return m_index.size(); }
    void clear();

private:
    uid_table<frames*> m_index;
};

}  // namespace tarvex

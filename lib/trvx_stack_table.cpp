#include "trvx_stack_table.h"

#include <cstring>
#include <new>

#include "trvx_next.h"

namespace tarvex {

const stack_table::frames* stack_table::find(uint32_t uid) {
    auto it = m_index.find(uid);
    return it != m_index.end() ? it->second : nullptr;
}

// The block is made first and the slot last: a failure of either leaves no
// entry.
void stack_table::insert(uint32_t uid, void* const* addrs, uint32_t len) {
    if (find(uid) != nullptr) return;
    void* mem = next_malloc(sizeof(frames) + len * sizeof(void*));
    if (mem == nullptr) throw std::bad_alloc();
    auto* rec = static_cast<frames*>(mem);
    rec->len = len;
    memcpy(rec->addrs(), addrs, len * sizeof(void*));
    try {
        m_index[uid] = rec;
    } catch (...) {
        next_free(mem);
        throw;
    }
}

void stack_table::clear() {
    for (const auto& slot : m_index) next_free(slot.second);
    m_index.clear();
}

}  // namespace tarvex

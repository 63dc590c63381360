// The registry of live tracked blocks: block address to record.
//
// Every tracked allocation inserts and every tracked release removes, from
// any thread, so the registry is split into shards by address, each an
// open-addressing hash table under its own mutex: threads that work on
// different blocks rarely meet, and nothing is allocated per block. A
// shard's lock is held for a probe of a few slots only.
// An entry takes 16 bytes: address, size and allocation uid; anything else a
// record holds is implied (allocation size = size + footer, no free uid) or,
// when it is not, kept in a side map (never, for the allocation paths).
#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>
#include <map>

#include "trvx_lock.h"
#include "trvx_next.h"

namespace tarvex {

class block_info;

class block_registry {
public:
    block_registry();
    ~block_registry();
    block_registry(const block_registry&) = delete;
    block_registry& operator=(const block_registry&) = delete;

    // Registers bi under bi.m_addr, replacing a record of the same address.
    // Throws std::bad_alloc when the table cannot grow; nothing changes then.
    void insert(const block_info& bi) { insert(bi, true); }
    // Copies out and removes the record of addr; false if there is none.
    bool remove(void* addr, block_info& out) { return remove(addr, out, true); }
    bool find(void* addr, block_info& out) { return find(addr, out, true); }
    // The same without the shards' locks, for a caller that holds a lock of
    // its own around every use of the registry (the counters' lock, while
    // counting): one locked update per call instead of two.
    void insert_held(const block_info& bi) { insert(bi, false); }
    bool remove_held(void* addr, block_info& out) { return remove(addr, out, false); }
    bool find_held(void* addr, block_info& out) { return find(addr, out, false); }
    size_t size_held() { return size(false); }
    // Starts fetching the table line where addr's entry is or would go,
    // without taking the lock (a table that grows meanwhile only makes the
    // fetch useless), so that a later insert or remove finds it cached.
    void prefetch(const void* addr) const;
    size_t size() { return size(true); }
    bool empty() { return size() == 0; }

    // fork: every shard's mutex is held across fork.
    void lock_all();
    void unlock_all();

private:
    // 16 bytes. A record whose sizes or free uid do not fit this form (an
    // allocation size other than size plus the footer, a size of 4 GiB or
    // more, a free uid set) keeps them in the shard's side map instead.
    struct entry {
        uintptr_t key;  // address; bit 63 set: the record is in odd_records
        uint32_t size;
        uint32_t alloc_uid;
    };
    struct odd_record {
        uint64_t size;
        uint64_t alloc_size;
        uint32_t free_uid;
    };
    typedef std::map<uintptr_t, odd_record, std::less<uintptr_t>,
                     raw_allocator<std::pair<const uintptr_t, odd_record>>>
        odd_map;
    // Two cache lines: the lock and counters, which every insert and remove
    // write, and the table's place and size, which change only when it
    // grows; a prefetch reads the second without pulling the first away
    // from the thread that holds the lock.
    struct alignas(64) shard {
        spin_lock mutex;
        size_t live = 0;
        odd_map* odd_records = nullptr;
        alignas(64) entry* slots = nullptr;
        size_t capacity = 0;  // a power of two, or 0
    };
    static constexpr size_t k_shards = 64;

    static size_t hash(uintptr_t addr);
    static shard& shard_of(shard* shards, uintptr_t addr);
    static size_t probe(const shard& s, uintptr_t addr);
    static void erase_slot(shard& s, size_t i);
    static void grow(shard& s);
    static void fill(const shard& s, const entry& e, block_info& out);
    void insert(const block_info& bi, bool lock);
    bool remove(void* addr, block_info& out, bool lock);
    bool find(void* addr, block_info& out, bool lock);
    size_t size(bool lock);

    shard m_shards[k_shards];
};

}  // namespace tarvex

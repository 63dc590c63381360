// The record of a tracked block and the guard footer written behind its
// bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "trvx_util.h"

namespace tarvex {

constexpr uint32_t k_footer_magic = 0xCAFEBABE;
constexpr size_t k_footer_size = 280;
constexpr int k_footer_frames = 32;

// The guard record behind each tracked block's bytes. It sits at an address
// with no alignment guarantee, so it is only ever accessed through the
// byte-wise accessors of block_info, never through a pointer to this type.
struct block_info_footer {
    uint32_t m_magic1;
    uint32_t m_reserved1;
    uint64_t m_frames[k_footer_frames];
    uint32_t m_alloc_uid;
    uint32_t m_free_uid;
    uint32_t m_magic2;
    uint32_t m_reserved2;
};
static_assert(sizeof(block_info_footer) == k_footer_size, "footer is 280 bytes");
static_assert(offsetof(block_info_footer, m_frames) == 8, "frames at offset 8");
static_assert(offsetof(block_info_footer, m_alloc_uid) == 264, "alloc uid at offset 264");
static_assert(offsetof(block_info_footer, m_free_uid) == 268, "free uid at offset 268");
static_assert(offsetof(block_info_footer, m_magic2) == 272, "magic2 at offset 272");

class block_info {
public:
    void* m_addr = nullptr;
    size_t m_size = 0;
    size_t m_alloc_size = 0;
    uint32_t m_alloc_uid = 0;
    uint32_t m_free_uid = 0;

    block_info_footer* create_footer();
    static void update_block_info_footer(tarvex::backtrace& bt, block_info_footer* footer);
    bool verify_footer();
    void format_block_info(std::vector<std::string>& out);

    block_info_footer* footer() const {
        return reinterpret_cast<block_info_footer*>(static_cast<char*>(m_addr) + m_size);
    }
};

// Unaligned access to a field of a footer.
uint32_t footer_read32(const block_info_footer* f, size_t offset);
void footer_write32(block_info_footer* f, size_t offset, uint32_t value);

}  // namespace tarvex

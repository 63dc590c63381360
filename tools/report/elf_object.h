// One object file (executable or shared library) opened through elfutils'
// libdwfl: its symbol table, and the functions and source lines at its
// link-time addresses, from its own DWARF data or a separate debug file.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

struct Dwfl;
struct Dwfl_Module;

namespace tarvex::report {

struct source_location {
    std::string function;  // readable name; empty when unknown
    std::string file;      // empty when there is no line information
    int line = 0;
};

class elf_object {
public:
    // Null when the path names no readable ELF file.
    static std::unique_ptr<elf_object> open(const std::string& path);
    ~elf_object();
    elf_object(const elf_object&) = delete;
    elf_object& operator=(const elf_object&) = delete;

    // ET_EXEC: loaded at its link-time addresses, so absolute addresses of
    // the process are its own addresses.
    bool fixed_address() const { return m_fixed_address; }

    // Link-time address of the symbol `name` (from .symtab, or .dynsym when
    // there is none). Among several symbols of that name the one that spans
    // `offset` bytes from its start is chosen.
    bool symbol_address(const std::string& name, std::uint64_t offset,
                        std::uint64_t& address) const;

    // What lies at a link-time address: the innermost (inlined) function with
    // its source line first, each enclosing inlining function with the line
    // of the inlined call after it, the function the code belongs to last.
    // Empty when neither symbols nor debug information cover the address.
    std::vector<source_location> locate(std::uint64_t address) const;

private:
    elf_object(Dwfl* dwfl, Dwfl_Module* module, bool fixed_address);
    void index_symbols() const;
    std::string symbol_name(std::uint64_t address) const;
    std::vector<source_location> inline_chain(std::uint64_t address) const;

    Dwfl* m_dwfl;
    Dwfl_Module* m_module;
    bool m_fixed_address;
    struct symbol_extent {
        std::uint64_t address;
        std::uint64_t size;
        int rank;  // 1 for a non-default symbol version
    };
    // Symbol name (without version) to extent, built on the first name lookup.
    mutable std::unordered_multimap<std::string, symbol_extent> m_symbols;
    mutable bool m_indexed = false;
};

}  // namespace tarvex::report

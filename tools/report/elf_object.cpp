#include "elf_object.h"

#include <dwarf.h>
#include <elfutils/libdw.h>
#include <elfutils/libdwfl.h>
#include <gelf.h>

#include <cstdlib>
#include <cstring>

#include "demangle.h"

namespace tarvex::report {

namespace {

// Files are read as they lie on disk; debug information may also come from
// /usr/lib/debug by build id or debug link.
Dwfl* begin_session() {
    static char* debuginfo_path = nullptr;
    static Dwfl_Callbacks callbacks = [] {
        Dwfl_Callbacks c{};
        c.find_elf = dwfl_build_id_find_elf;
        c.find_debuginfo = dwfl_standard_find_debuginfo;
        c.section_address = dwfl_offline_section_address;
        c.debuginfo_path = &debuginfo_path;
        return c;
    }();
    return dwfl_begin(&callbacks);
}

std::string string_attribute(Dwarf_Die* die, unsigned int name) {
    Dwarf_Attribute attribute;
    if (dwarf_attr_integrate(die, name, &attribute) == nullptr) return "";
    const char* text = dwarf_formstring(&attribute);
    return text ? text : "";
}

std::uint64_t number_attribute(Dwarf_Die* die, unsigned int name) {
    Dwarf_Attribute attribute;
    Dwarf_Word value = 0;
    if (dwarf_attr(die, name, &attribute) == nullptr || dwarf_formudata(&attribute, &value) != 0)
        return 0;
    return value;
}

// The name of a function's DIE, through its abstract origin or declaration.
std::string function_name(Dwarf_Die* die) {
    std::string linkage = string_attribute(die, DW_AT_linkage_name);
    if (linkage.empty()) linkage = string_attribute(die, DW_AT_MIPS_linkage_name);
    if (!linkage.empty()) return demangle(linkage);
    return string_attribute(die, DW_AT_name);
}

// The file named by an index of the compile unit's file table.
std::string cu_file(Dwarf_Die* cu, std::uint64_t index) {
    Dwarf_Files* files = nullptr;
    std::size_t count = 0;
    if (dwarf_getsrcfiles(cu, &files, &count) != 0 || index >= count) return "";
    const char* name = dwarf_filesrc(files, index, nullptr, nullptr);
    return name ? name : "";
}

// Symbol table names of versioned symbols carry "@VERSION" or "@@VERSION";
// the C library writes them without.
std::string without_version(const char* name) {
    const char* at = std::strchr(name, '@');
    return at ? std::string(name, at) : std::string(name);
}

// Non-default versions ("name@V") rank after default ones ("name@@V", "name").
int version_rank(const char* name) {
    const char* at = std::strchr(name, '@');
    return at != nullptr && at[1] != '@' ? 1 : 0;
}

bool is_function_scope(Dwarf_Die* die) {
    int tag = dwarf_tag(die);
    return tag == DW_TAG_subprogram || tag == DW_TAG_inlined_subroutine;
}

}  // namespace

std::unique_ptr<elf_object> elf_object::open(const std::string& path) {
    Dwfl* dwfl = begin_session();
    if (dwfl == nullptr) return nullptr;
    dwfl_report_begin(dwfl);
    // Base 0 with the segments' own addresses: module addresses are the
    // file's link-time addresses, for executables and shared objects alike.
    Dwfl_Module* module = dwfl_report_elf(dwfl, path.c_str(), path.c_str(), -1, 0, true);
    dwfl_report_end(dwfl, nullptr, nullptr);
    GElf_Addr bias = 0;
    Elf* elf = module ? dwfl_module_getelf(module, &bias) : nullptr;
    GElf_Ehdr header;
    if (elf == nullptr || gelf_getehdr(elf, &header) == nullptr) {
        dwfl_end(dwfl);
        return nullptr;
    }
    return std::unique_ptr<elf_object>(new elf_object(dwfl, module, header.e_type == ET_EXEC));
}

elf_object::elf_object(Dwfl* dwfl, Dwfl_Module* module, bool fixed_address)
    : m_dwfl(dwfl), m_module(module), m_fixed_address(fixed_address) {}

elf_object::~elf_object() { dwfl_end(m_dwfl); }

void elf_object::index_symbols() const {
    m_indexed = true;
    int count = dwfl_module_getsymtab(m_module);
    for (int i = 1; i < count; ++i) {
        GElf_Sym symbol;
        GElf_Addr address = 0;
        const char* name =
            dwfl_module_getsym_info(m_module, i, &symbol, &address, nullptr, nullptr, nullptr);
        if (name == nullptr || *name == '\0' || symbol.st_shndx == SHN_UNDEF) continue;
        m_symbols.emplace(without_version(name),
                          symbol_extent{address, symbol.st_size, version_rank(name)});
    }
}

bool elf_object::symbol_address(const std::string& name, std::uint64_t offset,
                                std::uint64_t& address) const {
    if (!m_indexed) index_symbols();
    auto [first, last] = m_symbols.equal_range(name);
    if (first == last) return false;
    const symbol_extent* best = &first->second;
    auto better = [offset](const symbol_extent& a, const symbol_extent& b) {
        bool a_spans = offset < a.size, b_spans = offset < b.size;
        return a_spans != b_spans ? a_spans : a.rank < b.rank;
    };
    for (auto it = first; it != last; ++it)
        if (better(it->second, *best)) best = &it->second;
    address = best->address;
    return true;
}

std::string elf_object::symbol_name(std::uint64_t address) const {
    GElf_Off offset = 0;
    GElf_Sym symbol;
    const char* name =
        dwfl_module_addrinfo(m_module, address, &offset, &symbol, nullptr, nullptr, nullptr);
    return name ? demangle(without_version(name)) : "";
}

// dwarf_getscopes follows an inlined function into its abstract definition,
// so the concrete nesting (inlined calls inside their callers, up to the
// function that holds the code) is taken from the innermost scope's DIE.
std::vector<source_location> elf_object::inline_chain(std::uint64_t address) const {
    std::vector<source_location> chain;
    Dwarf_Addr bias = 0;
    Dwarf_Die* cu = dwfl_module_addrdie(m_module, address, &bias);
    Dwarf_Die* found = nullptr;
    if (cu == nullptr || dwarf_getscopes(cu, address - bias, &found) <= 0) {
        std::free(found);
        return chain;
    }
    Dwarf_Die innermost = found[0];
    std::free(found);
    Dwarf_Die* scopes = nullptr;
    int count = dwarf_getscopes_die(&innermost, &scopes);
    std::string call_file;
    int call_line = 0;
    for (int i = 0; i < count; ++i) {
        if (!is_function_scope(&scopes[i])) continue;
        chain.push_back({function_name(&scopes[i]), call_file, call_line});
        if (dwarf_tag(&scopes[i]) != DW_TAG_inlined_subroutine) break;
        call_file = cu_file(cu, number_attribute(&scopes[i], DW_AT_call_file));
        call_line = static_cast<int>(number_attribute(&scopes[i], DW_AT_call_line));
    }
    std::free(scopes);
    return chain;
}

std::vector<source_location> elf_object::locate(std::uint64_t address) const {
    std::vector<source_location> chain = inline_chain(address);
    if (chain.empty()) chain.push_back({});
    source_location& innermost = chain.front();
    if (Dwfl_Line* line = dwfl_module_getsrc(m_module, address)) {
        int number = 0;
        const char* file = dwfl_lineinfo(line, nullptr, &number, nullptr, nullptr, nullptr);
        if (file != nullptr && number > 0) {
            innermost.file = file;
            innermost.line = number;
        }
    }
    // The symbol table names the function the code belongs to with its
    // namespaces and parameters where DWARF may give a bare name.
    std::string symbol = symbol_name(address);
    source_location& outermost = chain.back();
    if (outermost.function.empty() || (!symbol.empty() && symbol != outermost.function &&
                                       symbol.find('(') != std::string::npos))
        outermost.function = symbol.empty() ? outermost.function : symbol;
    if (chain.size() == 1 && innermost.function.empty() && innermost.file.empty()) chain.clear();
    return chain;
}

}  // namespace tarvex::report

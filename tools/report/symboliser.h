// Turns frame lines from a dead process into functions and source lines,
// through the object files they name. Each object file is read once and
// each distinct frame is resolved once.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "elf_object.h"
#include "frame_line.h"

namespace tarvex::report {

struct resolved_frame {
    bool resolved = false;      // false: nothing is known beyond the line itself
    std::string object;         // the object file as written in the line
    std::uint64_t address = 0;  // link-time address of the return address
    std::vector<source_location> locations;  // innermost inlined call first
};

class symboliser {
public:
    // Object files whose paths do not exist as written are also looked for
    // in each of search_dirs, under their written path and their base name.
    explicit symboliser(std::vector<std::string> search_dirs = {});

    const resolved_frame& resolve(const frame_line& frame);

    // Number of distinct object files read so far (found or not).
    std::size_t objects_seen() const { return m_objects.size(); }

private:
    elf_object* object(const std::string& path);
    std::string find_file(const std::string& path) const;
    bool link_address(const frame_line& frame, const elf_object& object,
                      std::uint64_t& address) const;
    resolved_frame compute(const frame_line& frame);

    std::vector<std::string> m_search_dirs;
    std::map<std::string, std::unique_ptr<elf_object>> m_objects;
    std::map<std::string, resolved_frame> m_frames;
};

// The frame's text with the absolute address left out where the rest
// identifies the code on its own: the same call site in two runs of a
// program gives the same key.
std::string frame_key(const frame_line& frame);

}  // namespace tarvex::report

#include "symboliser.h"

#include <unistd.h>

namespace tarvex::report {

namespace {

std::string base_name(const std::string& path) {
    std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

bool readable(const std::string& path) { return access(path.c_str(), R_OK) == 0; }

}  // namespace

std::string frame_key(const frame_line& frame) {
    switch (frame.kind) {
    case frame_line::form::symbol_offset:
    case frame_line::form::file_offset: {
        std::size_t bracket = frame.text.rfind(" [");
        return frame.text.substr(0, bracket);
    }
    default:
        return frame.text;
    }
}

symboliser::symboliser(std::vector<std::string> search_dirs)
    : m_search_dirs(std::move(search_dirs)) {}

const resolved_frame& symboliser::resolve(const frame_line& frame) {
    std::string key = frame_key(frame);
    auto found = m_frames.find(key);
    if (found == m_frames.end()) found = m_frames.emplace(key, compute(frame)).first;
    return found->second;
}

std::string symboliser::find_file(const std::string& path) const {
    if (readable(path)) return path;
    for (const std::string& dir : m_search_dirs) {
        for (const std::string& name : {path, base_name(path)}) {
            std::string candidate = dir + (name.front() == '/' ? "" : "/") + name;
            if (readable(candidate)) return candidate;
        }
    }
    return "";
}

elf_object* symboliser::object(const std::string& path) {
    auto found = m_objects.find(path);
    if (found == m_objects.end()) {
        std::string file = find_file(path);
        found = m_objects.emplace(path, file.empty() ? nullptr : elf_object::open(file)).first;
    }
    return found->second.get();
}

// The link-time address of the frame's return address. glibc writes
// "(+0xOFF)" as the address minus the object's load bias: for a shared
// object or position-independent executable that is the link-time address,
// and for a fixed-address executable (bias 0) the absolute address, which
// again is the link-time address. Without a symbol or offset only a
// fixed-address executable can be placed.
bool symboliser::link_address(const frame_line& frame, const elf_object& object,
                              std::uint64_t& address) const {
    switch (frame.kind) {
    case frame_line::form::symbol_offset: {
        std::uint64_t start = 0;
        if (!object.symbol_address(frame.symbol, frame.negative ? 0 : frame.offset, start))
            return false;
        address = frame.negative ? start - frame.offset : start + frame.offset;
        return true;
    }
    case frame_line::form::file_offset:
        address = frame.offset;
        return true;
    case frame_line::form::object_only:
        address = frame.address;
        return object.fixed_address();
    default:
        return false;
    }
}

resolved_frame symboliser::compute(const frame_line& frame) {
    resolved_frame result;
    result.object = frame.object;
    if (frame.object.empty()) return result;
    elf_object* file = object(frame.object);
    if (file == nullptr || !link_address(frame, *file, result.address) || result.address == 0)
        return result;
    // A return address points behind the call; the call itself is one byte
    // earlier, and may be the last instruction of its function.
    result.locations = file->locate(result.address - 1);
    result.resolved = !result.locations.empty();
    return result;
}

}  // namespace tarvex::report

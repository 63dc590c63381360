// C++ test program for the end-to-end tests: the forms of new and delete,
// exceptions and containers (see probe.h for the output).
#include <malloc.h>

#include <cstdint>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "probe.h"

namespace {

volatile size_t v_huge = SIZE_MAX;

struct alignas(64) wide {
    unsigned char bytes[100];
};

template <class T>
T* hide(T* p) {
    return static_cast<T*>(launder(p));
}

// Tracked: the footer stands right behind the usable size.
int tracked(const void* p) { return has_footer(p, malloc_usable_size(const_cast<void*>(p))); }
int aligned(const void* p, size_t a) { return reinterpret_cast<uintptr_t>(p) % a == 0; }

void scenario_forms() {
    int* a = hide(new int(5));
    emit(OUT_FD, "new int: tracked=%d usable=%zu\n", tracked(a), malloc_usable_size(a));
    delete a;
    int* b = hide(new int[10]);
    emit(OUT_FD, "new int[10]: tracked=%d usable=%zu\n", tracked(b), malloc_usable_size(b));
    delete[] b;
    wide* w = hide(new wide);
    emit(OUT_FD, "new alignas(64): tracked=%d aligned=%d\n", tracked(w), aligned(w, 64));
    delete w;
    wide* ws = hide(new wide[3]);
    emit(OUT_FD, "new alignas(64)[3]: tracked=%d aligned=%d\n", tracked(ws), aligned(ws, 64));
    delete[] ws;

    void* r = hide(::operator new(100, std::align_val_t(128)));
    emit(OUT_FD, "operator new(100, align 128): tracked=%d aligned=%d\n", tracked(r), aligned(r, 128));
    ::operator delete(r, std::align_val_t(128));
    r = hide(::operator new(100, std::align_val_t(128)));
    ::operator delete(r, 100, std::align_val_t(128));
    r = hide(::operator new[](100, std::align_val_t(256)));
    emit(OUT_FD, "operator new[](100, align 256): tracked=%d aligned=%d\n", tracked(r), aligned(r, 256));
    ::operator delete[](r, 100, std::align_val_t(256));

    void* s = hide(::operator new(24));
    emit(OUT_FD, "operator new(24): tracked=%d usable=%zu\n", tracked(s), malloc_usable_size(s));
    ::operator delete(s, 24);
    s = hide(::operator new[](24));
    ::operator delete[](s, 24);

    int* n1 = hide(new (std::nothrow) int(3));
    emit(OUT_FD, "new (nothrow) int: tracked=%d\n", tracked(n1));
    delete n1;
    int* n2 = hide(new (std::nothrow) int[4]);
    delete[] n2;
    void* n3 = hide(::operator new(24, std::align_val_t(32), std::nothrow));
    emit(OUT_FD, "operator new(24, align 32, nothrow): tracked=%d aligned=%d\n", tracked(n3), aligned(n3, 32));
    ::operator delete(n3, std::align_val_t(32), std::nothrow);
    void* n4 = ::operator new(v_huge, std::nothrow);
    emit(OUT_FD, "operator new(SIZE_MAX, nothrow): %s\n", n4 ? "block" : "null");
    try {
        void* never = ::operator new(v_huge);
        emit(OUT_FD, "operator new(SIZE_MAX): %p\n", never);
    } catch (const std::bad_alloc&) {
        emit(OUT_FD, "operator new(SIZE_MAX): bad_alloc\n");
    }

    void* z = hide(::operator new(0));
    ::operator delete(z);
    char* z2 = hide(new char[0]);
    delete[] z2;

    try {
        throw std::runtime_error(std::string(100, 'x'));
    } catch (const std::exception& e) {
        emit(OUT_FD, "exception message length %zu\n", strlen(e.what()));
    }
    std::vector<std::string> v;
    for (int i = 0; i < 200; ++i) v.push_back(std::string(40 + i % 30, static_cast<char>('a' + i % 26)));
    v.erase(v.begin(), v.begin() + 100);
    v.shrink_to_fit();
    v.clear();
    emit(OUT_FD, "released quietly\n");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2 || std::string(argv[1]) != "forms") return 2;
    scenario_forms();
    return 0;
}

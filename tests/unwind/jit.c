/* Code generated at run time, whose unwind table the program registers with
 * libgcc's __register_frame, as JIT compilers do. Run as the target with the
 * verifying library: every capture through the generated frame must equal
 * glibc's backtrace(). The first search of the registered table happens in
 * glibc's backtrace(), where libgcc allocates while it holds the mutex of its
 * registered tables: that allocation must pass through the library, which
 * would otherwise capture a stack, search the tables again and wait for the
 * mutex for good (the test's timeout). Prints "ok". */
#include <execinfo.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>

void __register_frame(void* begin);
void __deregister_frame(void* begin);

/* void generated(void (*fn)(void)): sub $8,%rsp; call *%rdi; add $8,%rsp; ret */
static const unsigned char k_code[] = {0x48, 0x83, 0xec, 0x08, 0xff, 0xd7, 0x48, 0x83, 0xc4, 0x08, 0xc3};

static unsigned char* put32(unsigned char* p, uint32_t v) {
    memcpy(p, &v, 4);
    return p + 4;
}

/* One CIE (augmentation "zR", pc-relative 4-byte addresses) and one FDE for
 * the code: the frame base is rsp+8 at entry, rsp+16 after the sub and
 * rsp+8 again after the add; the return address lies just below it. */
static unsigned char* build_eh_frame(unsigned char* p, const unsigned char* code) {
    static const unsigned char cie_body[] = {
        0, 0, 0, 0,             /* CIE id */
        1, 'z', 'R', 0,         /* version, augmentation */
        1, 0x78, 16,            /* code align 1, data align -8, return address column 16 */
        1, 0x1b,                /* augmentation data: FDE addresses pcrel|sdata4 */
        0x0c, 7, 8, 0x90, 1,    /* def_cfa rsp+8; return address at cfa-8 */
        0, 0};                  /* nops to a multiple of 4 */
    static const unsigned char fde_tail[] = {
        0,                      /* augmentation data length */
        0x44, 0x0e, 16,         /* advance 4: cfa offset 16 */
        0x46, 0x0e, 8,          /* advance 6: cfa offset 8 */
        0};                     /* nop to a multiple of 4 */
    unsigned char* cie = p;
    p = put32(p, sizeof cie_body);
    memcpy(p, cie_body, sizeof cie_body);
    p += sizeof cie_body;
    p = put32(p, 4 + 4 + 4 + sizeof fde_tail);
    p = put32(p, (uint32_t)(p - cie));                         /* back to the CIE */
    p = put32(p, (uint32_t)(int32_t)(code - p));                /* function start, pc-relative */
    p = put32(p, sizeof k_code);
    memcpy(p, fde_tail, sizeof fde_tail);
    p += sizeof fde_tail;
    return put32(p, 0); /* end of the table */
}

static void inside(void) {
    void* frames[64];
    int n = backtrace(frames, 64);
    if (n < 4) {
        printf("glibc's backtrace() stopped after %d frames\n", n);
        exit(1);
    }
    for (int i = 0; i < 200; ++i) {
        void* volatile p = malloc((size_t)(16 + i));
        free(p);
    }
}

int main(void) {
    unsigned char* mem = mmap(NULL, 4096, PROT_READ | PROT_WRITE | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mem == MAP_FAILED) {
        puts("no executable memory");
        return 1;
    }
    memcpy(mem, k_code, sizeof k_code);
    unsigned char* eh = mem + 64;
    build_eh_frame(eh, mem);
    __register_frame(eh);
    ((void (*)(void (*)(void)))(void*)mem)(inside);
    __deregister_frame(eh);
    puts("ok");
    return 0;
}

// The library and its core from C++: prints the soname.
#include <cstdio>
#include <zencore.h>
#include <zenr.h>

int main() {
    zenSetNumThreads(3);
    void* block = zenMalloc(100);
    if (!block || ownGetNumThreads() != 3) return 1;
    zenFree(block);
    std::puts(zenrGetLibVersion()->name);
    return 0;
}

/* The library from C99: prints its soname. */
#include <stdio.h>
#include <zenr.h>

int main(void) {
    const float vertices[6] = {0, 0, 0, 1, 2, 3};
    float box[6];
    if (zenrSetBoundBox_32f(vertices, 2, box) != zenStsNoErr || !(box[5] > 3.0f)) return 1;
    puts(zenrGetLibVersion()->name);
    return 0;
}

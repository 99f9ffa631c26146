// What the user is told in one line when something that they gave cannot be used; main() prints it and exits with 1.
#pragma once
#include <cstdio>
#include <exception>
#include <new>
#include <stdexcept>

struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Runs a program's work and returns its exit code; what goes wrong becomes one line that begins with the program's name.
template <class Work> int exitCodeOf(const char* program, const Work& work) {
    try {
        work();
        return 0;
    } catch (const std::bad_alloc&) {
        std::fprintf(stderr, "%s: not enough memory\n", program);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s: %s\n", program, error.what());
    }
    return 1;
}

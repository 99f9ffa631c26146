// What the user is told in one line when something that they gave cannot be used; main() prints it and exits with 1.
#pragma once
#include <stdexcept>

struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

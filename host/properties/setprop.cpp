// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

// setprop NAME VALUE sets a property; what was refused it says on standard error, with exit code 1.

#include <cutils/properties.h>
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <iostream>

int main(int argc, char** argv) {
    if (argc != 3) {
        std::cerr << "usage: setprop NAME VALUE\n";
        return EXIT_FAILURE;
    }
    if (property_set(argv[1], argv[2]) == 0) return EXIT_SUCCESS;
    const int error = errno;
    std::cerr << "setprop: cannot set '" << argv[1] << "' to '" << argv[2]
              << "': " << strerror(error) << "\n";
    return EXIT_FAILURE;
}

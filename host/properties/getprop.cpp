// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

// getprop NAME [DEFAULT] prints a property's value, getprop alone prints all: [name]: [value].

#include <cutils/properties.h>
#include <stdio.h>
#include <stdlib.h>

#include <iostream>

namespace {

void printEntry(const char* key, const char* value, void* /* cookie */) {
    printf("[%s]: [%s]\n", key, value);
}

int printAll() {
    if (property_list(printEntry, nullptr) == 0) return EXIT_SUCCESS;
    perror("getprop: cannot list the properties");
    return EXIT_FAILURE;
}

int printOne(const char* name, const char* fallback) {
    char value[PROPERTY_VALUE_MAX];
    property_get(name, value, fallback);
    puts(value);
    return EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 1) return printAll();
    if (argc <= 3) return printOne(argv[1], argc == 3 ? argv[2] : "");
    std::cerr << "usage: getprop [NAME [DEFAULT]]\n";
    return EXIT_FAILURE;
}

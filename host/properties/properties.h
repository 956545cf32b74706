// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

// Where system properties live on a machine without the platform's property service: one file for
// each property, whose name is the property's and whose bytes are its value. Every process sees a
// change at its next call. The calls themselves are those of <cutils/properties.h>:
//
// property_get        as there. A value of more than PROPERTY_VALUE_MAX - 1 bytes, which only
//                     another hand than property_set can have written, is cut to that length.
// property_get_int32  as there; errno is left as it was.
// property_set        0, or -1 with errno set and the property unchanged: EINVAL for a name that
//                     isValidPropertyName refuses or a value of more than PROPERTY_VALUE_MAX - 1
//                     bytes, EPERM for a property "ro.*" that is already set, else what the file
//                     system says. A null value is an empty one. The first call makes the
//                     directory. Readers see the old value or the new one, never a part.
// property_list       calls the function for each property in alphabetical order; 0, also without
//                     a directory, or -1 with errno set.
//
// property_get_bool and property_get_int64 are declared there and not part of this port.

#pragma once

namespace android::properties {

constexpr char kPropertyDir[] = "/run/kus-properties";

// Letters, digits and "._-@:", without a dot at either end or two in a row: the platform's rule,
// which also makes every valid name a harmless file name.
bool isValidPropertyName(const char* name);

// Whether a property of this valid name can be set only once.
bool isReadOnlyProperty(const char* name);

// Makes kPropertyDir, readable for all; true if it was there, also as something that is no
// directory. False with errno set when it cannot be made.
bool makePropertyDir();

}  // namespace android::properties

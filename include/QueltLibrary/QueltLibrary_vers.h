// The library's exported version symbols.
#pragma once

#include "QueltLibrary/Export.h"

extern "C" {
// 1.0
QLT_EXPORT extern const double QueltLibraryVersionNumber;
// "@(#)PROGRAM:QueltLibrary  PROJECT:QueltLibrary-1\n", findable by what-string tools.
QLT_EXPORT extern const unsigned char QueltLibraryVersionString[];
}

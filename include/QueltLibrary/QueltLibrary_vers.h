// The library's exported version symbols.
#pragma once

extern "C" {
// 1.0
extern const double QueltLibraryVersionNumber;
// "@(#)PROGRAM:QueltLibrary  PROJECT:QueltLibrary-1\n", findable by what-string tools.
extern const unsigned char QueltLibraryVersionString[];
}

#include "QueltLibrary/QueltLibrary_vers.h"

extern "C" {
const double QueltLibraryVersionNumber = 1.0;
const unsigned char QueltLibraryVersionString[] =
    "@(#)PROGRAM:QueltLibrary  PROJECT:QueltLibrary-1\n";
}

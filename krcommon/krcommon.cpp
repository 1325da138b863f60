#include <krcommon/krcommon.h>

extern "C" {
const double krcommonVersionNumber = 1.0;
const unsigned char krcommonVersionString[] = "@(#)PROGRAM:krcommon  PROJECT:krcommon-1\n";
}

#pragma once

// RecursiveLock is declared beside Lock, of which it is the recursive kind.
#include <krcommon/platform/dispatch/Lock.h>

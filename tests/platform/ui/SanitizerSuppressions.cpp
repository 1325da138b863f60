// LeakSanitizer's suppressions for the test program. fontconfig keeps what it
// reads from its configuration files for the whole process and loses a few
// small blocks while parsing them (in FcInitLoadConfigAndFonts); those are its
// own and are freed only by FcFini(), which a library must not call for the
// whole process. The text engine's own caches are released at exit.

extern "C" const char* __lsan_default_suppressions() { return "leak:libfontconfig.so\n"; }

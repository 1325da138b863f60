// Sanitizer suppressions for the test program, for libraries it uses that are
// not built with the sanitizers and whose own synchronisation the sanitizers
// cannot see.
//
// fontconfig (under the text engine) keeps what it reads from its configuration
// files for the whole process and loses a few small blocks while parsing them
// (in FcInitLoadConfigAndFonts); those are freed only by FcFini(), which a
// library must not call for the whole process. pango loads the font
// configuration on a thread of its own, and fontconfig's caches are then read
// without annotations, which ThreadSanitizer reports as races inside fontconfig.
//
// The test servers' library (cpp-httplib) hands connections between its worker
// threads through synchronisation compiled outside the sanitizer, so
// ThreadSanitizer reports races inside it; it is test infrastructure only.

extern "C" const char* __lsan_default_suppressions() { return "leak:libfontconfig.so\n"; }
extern "C" const char* __tsan_default_suppressions() {
    return "race:libfontconfig.so\n"
           "race:libcpp-httplib.so\n";
}

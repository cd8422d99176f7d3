// ThreadSanitizer cannot see GLib's own synchronisation (GLib is not built with it), so it reports
// races between GLib's worker threads (GDBus, the GTask pool) and the thread that started the
// call, and takes GObject's type-system locks for double locks. They are GLib-internal; our own
// code is still checked everywhere else.

extern "C" const char* __tsan_default_suppressions() {
  return "called_from_lib:libglib-2.0.so.0\n"
         "called_from_lib:libgio-2.0.so.0\n"
         "race:libglib-2.0.so.0\n"
         "race:libgio-2.0.so.0\n"
         "race:libgobject-2.0.so.0\n"
         "race:libsecret-1.so.0\n"
         "called_from_lib:libgobject-2.0.so.0\n"
         "called_from_lib:libsecret-1.so.0\n"
         "mutex:libsecret-1.so.0\n"
         "mutex:libgobject-2.0.so.0\n"
         "mutex:libglib-2.0.so.0\n"
         "deadlock:libgobject-2.0.so.0\n"
         "deadlock:libglib-2.0.so.0\n";
}

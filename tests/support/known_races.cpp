// Races that the thread sanitizer sees inside of libraries that are not ours, and that cannot be avoided from outside.
// Built into every test program under that sanitizer.

extern "C" const char* __tsan_default_suppressions();

extern "C" [[gnu::visibility("default")]] const char* __tsan_default_suppressions() {
  // libcurl 7.88, when a name's lookup is given up, still reads what the lookup's own thread may have freed by then.
  return "race:destroy_async_data\n";
}

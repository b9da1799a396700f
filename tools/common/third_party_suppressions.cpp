// Reports from third-party code that ThreadSanitizer makes in our tests and that are not
// ours to fix: Debian's OpenCV reads images through GDAL, whose own two mutexes are taken in
// either order on one thread during that read. When an X server goes away, Xlib's IO error
// path unlocks the display's mutex and the call it interrupted unlocks it once more.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions() {
  return "deadlock:libgdal.so\nmutex:libX11.so\nmutex:libXrandr.so\nmutex:libXext.so\n";
}
